/// Tells the tests of the loops which descriptors the process has open.
#pragma once

#include <dirent.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <set>
#include <vector>

namespace tarn::test {

/// The open descriptors of this process.
inline std::set<int> open_descriptors() {
    std::set<int> open;
    DIR* const folder = ::opendir("/proc/self/fd");
    while (const dirent* const item = ::readdir(folder)) {
        const int fd = std::atoi(item->d_name);
        if (item->d_name[0] != '.' && fd != ::dirfd(folder)) {
            open.insert(fd);
        }
    }
    ::closedir(folder);
    return open;
}

/// Those of them that are not in `before`.
inline std::vector<int> opened_since(const std::set<int>& before) {
    const std::set<int> now = open_descriptors();
    std::vector<int> opened;
    std::set_difference(now.begin(), now.end(), before.begin(), before.end(),
                        std::back_inserter(opened));
    return opened;
}

} // namespace tarn::test
