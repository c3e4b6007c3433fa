/// A folder for the files of one test.
#include "tarn/testing/temporary_folder.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace tarn::testing {

namespace fs = std::filesystem;

temporary_folder::temporary_folder()
    : path_(fs::temp_directory_path() / "tarn-test-XXXXXX") {
    if (::mkdtemp(path_.data()) == nullptr) {
        throw fs::filesystem_error("mkdtemp", path_,
                                   std::error_code(errno, std::generic_category()));
    }
}

temporary_folder::~temporary_folder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

} // namespace tarn::testing
