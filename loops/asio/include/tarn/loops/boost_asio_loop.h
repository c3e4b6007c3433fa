/// The client on an io_context of Boost.Asio (Debian: libboost-dev).
#pragma once

#include "tarn/loops/basic_asio_loop.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>

namespace tarn::loops {

/// An io_context of Boost.Asio as the client's loop; see basic_asio_loop.
///
///     boost::asio::io_context context;
///     auto loop = std::make_shared<tarn::loops::boost_asio_loop>(context);
class boost_asio_loop final
    : public basic_asio_loop<::boost::asio::io_context, ::boost::asio::posix::stream_descriptor> {
public:
    using basic_asio_loop::basic_asio_loop;
};

} // namespace tarn::loops
