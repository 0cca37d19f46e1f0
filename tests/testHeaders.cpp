// Compiled for its precompiled headers alone; see CMakeLists.txt.
int main() {}
