/// The steps of additions, removals and replies; and reports whose links are released.
#include "client/object_operation.h"

#include "client/app_side.h"
#include "client/loop_side.h"

namespace tarn {

void report::release() {
    app_.give_up(*this);
}

void object_operation::begin() {
    if (what_ == kind::addition) {
        loop_.add_object_sync(*this);
    } else {
        loop_.del_object_sync(*this);
    }
}

void object_operation::complete() {
    if (what_ == kind::addition) {
        app_.complete_addition(*this, true);
    } else {
        app_.complete_removal(*this, true);
    }
}

void object_operation::complete_unreported() noexcept {
    if (what_ == kind::addition) {
        app_.complete_addition(*this, false);
    } else {
        app_.complete_removal(*this, false);
    }
}

void send_operation::begin() {
    loop_.send_sync(*this);
}

void send_operation::complete() {
    if (unreported) {
        app_.give_up(*this);
    } else {
        app_.tell(*this, status);
    }
}

void send_operation::complete_unreported() noexcept {
    app_.give_up(*this);
}

} // namespace tarn
