/// The commands of tarn, for its main program. Each returns the exit status, and throws usage_error
/// or json_error for what it was given, and exceptions of output.h.
#pragma once

namespace tools {

struct options;

int call(const options& given);
int list(const options& given);
int listen(const options& given);
int monitor(const options& given);
int send(const options& given);
int subscribe(const options& given);
int wait(const options& given);

} // namespace tools
