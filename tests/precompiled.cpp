/// A program without use: the precompiled header belongs to it, since a test program can only take
/// it from one that is compiled as a program, too.
int main() {}
