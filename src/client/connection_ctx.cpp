/// The steps of a connection.
#include "client/connection_ctx.h"

#include "client/app_side.h"
#include "client/loop_side.h"

namespace tarn {

void connection_ctx::connect() {
    loop_.connect_sync(*this);
}

void connection_ctx::tell_result() {
    app_.on_connect_result(*this);
}

void connection_ctx::tell_loss() {
    app_.on_lost(*this);
}

void connection_ctx::free_lost() {
    loop_.free_lost_bus();
}

void connection_ctx::disconnect() {
    loop_.disconnect_sync(*this);
}

void connection_ctx::tell_end() {
    app_.on_disconnected(*this);
}

} // namespace tarn
