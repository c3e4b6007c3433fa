/// Drives the adapter for standalone Asio.
#pragma once

#include "tarn/loops/asio_loop.h"

#include "loops/drivers/basic_asio_driver.h"

namespace tarn::test {

using loop_driver = basic_asio_driver<asio::io_context, loops::asio_loop>;

} // namespace tarn::test
