/// Drives the adapter for Boost.Asio.
#pragma once

#include "tarn/loops/boost_asio_loop.h"

#include "loops/drivers/basic_asio_driver.h"

namespace tarn::test {

using loop_driver = basic_asio_driver<boost::asio::io_context, loops::boost_asio_loop>;

} // namespace tarn::test
