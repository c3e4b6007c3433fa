/// Which of a test's buses its clients find.
#pragma once

#include <string>

namespace tarn::test {

/// From now on ubus_connect(NULL), in this process and in those it starts, leads to the socket at
/// `path`. Connections that are there already stay.
///
/// The bundled libubus reads the path from the environment variable UBUS_SOCKET, so other threads
/// must not be in getenv() meanwhile. An installed libubus has it compiled in: that path becomes a
/// symbolic link, which stays behind. Failure throws std::system_error.
void lead_clients_to(const std::string& path);

} // namespace tarn::test
