/// The client on an io_context of standalone Asio (Debian: libasio-dev).
#pragma once

#include "tarn/loops/basic_asio_loop.h"

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>

namespace tarn::loops {

/// An io_context of standalone Asio as the client's loop; see basic_asio_loop.
///
///     asio::io_context context;
///     auto loop = std::make_shared<tarn::loops::asio_loop>(context);
class asio_loop final
    : public basic_asio_loop<::asio::io_context, ::asio::posix::stream_descriptor> {
public:
    using basic_asio_loop::basic_asio_loop;
};

} // namespace tarn::loops
