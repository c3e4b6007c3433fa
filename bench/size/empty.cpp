/// What an empty program holds in memory, for ./dev size.
#include <cstdio>
#include <unistd.h>

int main() {
    std::puts("ready");
    std::fflush(stdout);
    ::pause();
}
