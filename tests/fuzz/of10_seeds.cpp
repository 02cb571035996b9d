/*
 * Writes the samples of the codec's tests as files, one message each, to begin fuzzing with. Usage: of10_seeds
 * DIRECTORY.
 */
#include "support.h"

#include <fstream>

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
        return 2;
    }
    for (const of10_test::sample &one : of10_test::samples()) {
        const of10::bytes wire = of10_test::encoded(one.message);
        std::string name = one.name;
        for (char &letter : name)
            if (letter == ' ' || letter == ',')
                letter = '_';
        std::ofstream out(std::string(argv[1]) + "/" + name, std::ios::binary);
        out.write(reinterpret_cast<const char *>(wire.data()), static_cast<std::streamsize>(wire.size()));
        if (!out.flush()) {
            std::fprintf(stderr, "%s: could not be written\n", argv[1]);
            return 1;
        }
    }
    return 0;
}
