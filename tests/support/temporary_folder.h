/// The test kit's temporary_folder, for the tests.
#pragma once

#include "tarn/testing/temporary_folder.h"

namespace tarn::test {

using testing::temporary_folder;

} // namespace tarn::test
