/* never_reads CALLS: calls the method "big" of the object "peer" so many times and reads none of
 * the answers. Prints "never_reads: sent" and then waits until it is killed. On plain libubus. */
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
#include <libubus.h>

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

static struct blob_buf arguments;

int main(int argc, char** argv) {
    uloop_init();
    struct ubus_context* context = ubus_connect(NULL);
    uint32_t id = 0;
    if (argc != 2 || context == NULL || ubus_lookup_id(context, "peer", &id) != 0)
        return 1;
    blob_buf_init(&arguments, 0);
    for (int i = atoi(argv[1]); i > 0; --i) {
        struct ubus_request request;
        if (ubus_invoke_async_fd(context, id, "big", arguments.head, &request, -1) != 0)
            return 1;
    }
    printf("never_reads: sent\n");
    fflush(stdout);
    for (;;)
        pause();
}
