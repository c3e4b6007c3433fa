/// tarn::blob::utils::to_blobmsg_type: the blobmsg type of each stored type.
#include "tarn/blob/buf.h"

#include "bus.h"

#include <map>
#include <stdexcept>

namespace tarn::blob::utils {

int to_blobmsg_type(const std::type_index& type) {
    // Never destroyed: the loop thread may still decode while the process runs its exit handlers.
    static const auto& types = *new std::map<std::type_index, enum blobmsg_type> {
        {typeid(bytes), BLOBMSG_TYPE_UNSPEC},
        {typeid(list), BLOBMSG_TYPE_ARRAY},
        {typeid(table), BLOBMSG_TYPE_TABLE},
        {typeid(std::string), BLOBMSG_TYPE_STRING},
        {typeid(unsigned long long), BLOBMSG_TYPE_INT64},
        {typeid(unsigned int), BLOBMSG_TYPE_INT32},
        {typeid(unsigned short), BLOBMSG_TYPE_INT16},
        {typeid(unsigned char), BLOBMSG_TYPE_INT8},
        {typeid(bool), BLOBMSG_TYPE_INT8},
        {typeid(double), BLOBMSG_TYPE_DOUBLE},
    };
    const auto found = types.find(type);
    if (found == types.end()) {
        throw std::logic_error("tarn::blob::utils::to_blobmsg_type: Unknown type");
    }
    return found->second;
}

} // namespace tarn::blob::utils
