/// A folder for the files of one test.
#pragma once

#include <string>

namespace tarn::testing {

/// Makes an empty folder under TMPDIR (else /tmp), and removes it with what is in it.
/// Errors: std::filesystem::filesystem_error when it cannot be made.
class temporary_folder {
public:
    temporary_folder();
    ~temporary_folder();
    temporary_folder(const temporary_folder&) = delete;
    temporary_folder& operator=(const temporary_folder&) = delete;

    /// The folder's path.
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

} // namespace tarn::testing
