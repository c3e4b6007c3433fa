/// The bundled C headers in a C program: that it compiles is the test; what it returns is checked.
#include <libubox/blob.h>
#include <libubox/blobmsg.h>
#include <libubox/list.h>
#include <libubox/uloop.h>
#include <libubus.h>

struct entry {
    int value;
    struct list_head list;
};

static int sum_of_fields(void) {
    struct blob_buf buf;
    struct blob_attr* field;
    int rem;
    int sum = 0;
    memset(&buf, 0, sizeof buf);
    if (blob_buf_init(&buf, 0) != 0) {
        return -1;
    }
    void* array = blobmsg_open_array(&buf, "numbers");
    blobmsg_add_u32(&buf, NULL, 40);
    blobmsg_add_u16(&buf, NULL, 2);
    blobmsg_close_array(&buf, array);
    blobmsg_for_each_attr(field, (struct blob_attr*)blob_data(buf.head), rem) {
        sum += blobmsg_type(field) == BLOBMSG_TYPE_INT32 ? (int)blobmsg_get_u32(field)
                                                         : (int)blobmsg_get_u16(field);
    }
    blob_buf_free(&buf);
    return sum;
}

static int front_of_list(void) {
    struct list_head head = {&head, &head};
    struct entry first = {1, {NULL, NULL}};
    struct entry second = {2, {NULL, NULL}};
    list_add_tail(&second.list, &head);
    list_add(&first.list, &head);
    list_del_init(&first.list);
    return list_empty(&first.list) ? list_entry(head.next, struct entry, list)->value : -1;
}

static int one_round(void) {
    int result;
    if (uloop_init() != 0) {
        return -1;
    }
    result = uloop_run_timeout(0);
    uloop_end();
    uloop_done();
    return result;
}

int main(void) {
    return sum_of_fields() == 42 && front_of_list() == 2 && one_round() == 0 ? 0 : 1;
}
