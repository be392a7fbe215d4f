#include "PlatSafecopy.h"

std::size_t platSafecopy(char* destination, std::size_t destinationSize, const char* source,
                         std::size_t count) {
    if (destinationSize == 0) {
        return 0;
    }
    std::size_t copied = 0;
    while (copied < count && copied + 1 < destinationSize) {
        destination[copied] = source[copied];
        ++copied;
        if (source[copied - 1] == '\0') {
            return copied;
        }
    }
    // Truncated (or count reached without a terminator): the field always ends in one.
    destination[copied] = '\0';
    return copied + 1;
}
