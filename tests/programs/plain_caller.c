/* A caller on plain libubus, for tests of what libtarn serves.
 *
 *   plain_caller PATH METHOD MILLISECONDS [NAME=TEXT | NAME:NUMBER]...
 *
 * Calls METHOD of PATH with the string and 32-bit integer fields given. Prints "calling" once the
 * request is out, "reply BYTES" (the length of the data) and its fields "  NAME=TEXT" or
 * "  NAME:NUMBER" for every reply, and "status N" at the end. */
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
#include <libubus.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static struct blob_buf arguments;

static void print_reply(struct ubus_request* request, int type, struct blob_attr* message) {
    (void)request;
    (void)type;
    printf("reply %u\n", (unsigned int)blob_len(message));
    struct blob_attr* field;
    size_t remaining = blob_len(message);
    __blob_for_each_attr(field, blob_data(message), remaining) {
        if (blob_id(field) == BLOBMSG_TYPE_STRING && blobmsg_data_len(field) < 200)
            printf("  %s=%s\n", blobmsg_name(field), blobmsg_get_string(field));
        else if (blob_id(field) == BLOBMSG_TYPE_INT32)
            printf("  %s:%d\n", blobmsg_name(field), (int)blobmsg_get_u32(field));
        else
            printf("  %s (type %u)\n", blobmsg_name(field), (unsigned int)blob_id(field));
    }
    fflush(stdout);
}

static void add_field(char* text) {
    char* separator = strpbrk(text, "=:");
    if (separator == NULL) {
        fprintf(stderr, "plain_caller: '%s' is no field\n", text);
        exit(2);
    }
    const char kind = *separator;
    *separator = '\0';
    if (kind == '=')
        blobmsg_add_string(&arguments, text, separator + 1);
    else
        blobmsg_add_u32(&arguments, text, (uint32_t)strtol(separator + 1, NULL, 0));
}

int main(int argc, char** argv) {
    if (argc < 4) {
        fprintf(stderr, "plain_caller PATH METHOD MILLISECONDS [NAME=TEXT | NAME:NUMBER]...\n");
        return 2;
    }
    struct ubus_context* context = ubus_connect(NULL);
    if (context == NULL) {
        fprintf(stderr, "plain_caller: no bus\n");
        return 1;
    }
    blob_buf_init(&arguments, 0);
    for (int i = 4; i < argc; ++i)
        add_field(argv[i]);

    uint32_t id = 0;
    int status = ubus_lookup_id(context, argv[1], &id);
    if (status == UBUS_STATUS_OK) {
        struct ubus_request request;
        status = ubus_invoke_async(context, id, argv[2], arguments.head, &request);
        if (status == UBUS_STATUS_OK) {
            printf("calling\n");
            fflush(stdout);
            request.data_cb = print_reply;
            status = ubus_complete_request(context, &request, atoi(argv[3]));
        }
    }
    printf("status %d\n", status);
    fflush(stdout);
    blob_buf_free(&arguments);
    ubus_free(context);
    return 0;
}
