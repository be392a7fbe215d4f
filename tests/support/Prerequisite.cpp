#include "Prerequisite.h"

#include <cstdlib>
#include <cstring>

bool PrerequisitesRequired() {
    const char* required = std::getenv("MODEMLOADER_REQUIRE_DEVICE");
    return required != nullptr && std::strcmp(required, "1") == 0;
}
