/// A policy of expected fields as libubox takes it, for the readers and the published methods.
#pragma once

#include "bus.h"
#include "tarn/blob/readers.h"

#include <cstddef>
#include <vector>

namespace tarn::blob::detail {

/// `entries` as the int that libubox counts a policy with. Throws `std::runtime_error`
/// "tarn::blob::utils::to_table: Too big policy" when it does not fit one.
int policy_count(std::size_t entries);

/// One record per entry, in the policy's order. The names point into the policy, which must outlive
/// the records. Throws what to_blobmsg_type() throws.
std::vector<blobmsg_policy> policy_records(const policy& expected);

} // namespace tarn::blob::detail
