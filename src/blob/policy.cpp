/// A policy of expected fields as libubox takes it.
#include "blob/policy.h"

#include "tarn/blob/buf.h"

#include <limits>
#include <stdexcept>

namespace tarn::blob::detail {

int policy_count(std::size_t entries) {
    if (entries > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        throw std::runtime_error("tarn::blob::utils::to_table: Too big policy");
    }
    return static_cast<int>(entries);
}

std::vector<blobmsg_policy> policy_records(const policy& expected) {
    std::vector<blobmsg_policy> records;
    records.reserve(expected.size());
    for (const auto& [name, type] : expected) {
        blobmsg_policy record = {};
        record.name = name.c_str();
        record.type = static_cast<enum blobmsg_type>(utils::to_blobmsg_type(type));
        records.push_back(record);
    }
    return records;
}

} // namespace tarn::blob::detail
