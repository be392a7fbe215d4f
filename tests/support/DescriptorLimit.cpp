#include "DescriptorLimit.h"

#include <fcntl.h>
#include <unistd.h>

CDescriptorLimit::CDescriptorLimit(int spare) {
    if (::getrlimit(RLIMIT_NOFILE, &m_saved) != 0) {
        return;
    }
    // The limit bounds descriptor numbers, and the lowest free number is the next one given out:
    // `spare` more numbers from it, and every open after those fails with EMFILE.
    const int lowestFree = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (lowestFree < 0) {
        return;
    }
    ::close(lowestFree);
    rlimit lowered = m_saved;
    lowered.rlim_cur = static_cast<rlim_t>(lowestFree + spare);
    m_lowered = ::setrlimit(RLIMIT_NOFILE, &lowered) == 0;
}

CDescriptorLimit::~CDescriptorLimit() {
    if (m_lowered) {
        ::setrlimit(RLIMIT_NOFILE, &m_saved);
    }
}
