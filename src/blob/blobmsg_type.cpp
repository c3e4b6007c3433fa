/// tarn::blob::utils::to_blobmsg_type: the blobmsg type of each stored type.
#include "tarn/blob/buf.h"

#include "bus.h"

#include <stdexcept>
#include <typeinfo>

namespace tarn::blob::utils {

namespace {

struct entry {
    const std::type_info& stored;
    enum blobmsg_type number;
};

/// The types most common in policies come first, since each mismatch compares names.
constexpr entry entries[] = {
    {typeid(std::string), BLOBMSG_TYPE_STRING},
    {typeid(unsigned int), BLOBMSG_TYPE_INT32},
    {typeid(bool), BLOBMSG_TYPE_INT8},
    {typeid(table), BLOBMSG_TYPE_TABLE},
    {typeid(list), BLOBMSG_TYPE_ARRAY},
    {typeid(unsigned long long), BLOBMSG_TYPE_INT64},
    {typeid(unsigned char), BLOBMSG_TYPE_INT8},
    {typeid(double), BLOBMSG_TYPE_DOUBLE},
    {typeid(unsigned short), BLOBMSG_TYPE_INT16},
    {typeid(bytes), BLOBMSG_TYPE_UNSPEC},
};

} // namespace

int to_blobmsg_type(const std::type_index& type) {
    for (const entry& candidate : entries) {
        if (type == candidate.stored) {
            return candidate.number;
        }
    }
    throw std::logic_error("tarn::blob::utils::to_blobmsg_type: Unknown type");
}

} // namespace tarn::blob::utils
