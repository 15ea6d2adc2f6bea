// Runs the kept inputs, which are its arguments, without a fuzzer.

#include <cstddef>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size);

int main(int count, char** paths)
{
    for (int i = 1; i < count; ++i) {
        std::ifstream file(paths[i], std::ios::binary);
        const std::string input((std::istreambuf_iterator<char>(file)), {});
        std::fprintf(stderr, "%s\n", paths[i]);
        LLVMFuzzerTestOneInput(reinterpret_cast<const unsigned char*>(input.data()), input.size());
    }
    return count > 1 ? 0 : 1;
}
