/// What a connected client of plain libubus holds in memory, for ./dev size.
#include <libubox/uloop.h>
#include <libubus.h>
#include <stdio.h>

int main(void) {
    uloop_init();
    struct ubus_context* bus = ubus_connect(NULL);
    if (bus == NULL) {
        fputs("no bus\n", stderr);
        return 1;
    }
    ubus_add_uloop(bus);
    puts("ready");
    fflush(stdout);
    uloop_run();
    ubus_free(bus);
    uloop_done();
    return 0;
}
