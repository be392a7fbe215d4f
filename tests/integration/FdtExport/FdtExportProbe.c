/* Looks at "/dev/fdtexport" the way the module does (stat, open, lseek, mmap) and prints what it
 * saw on one line, so that the interposer can be checked when it is loaded with LD_PRELOAD, as
 * the host program loads it:
 *   stat=chr open=ok size=<bytes> magic=d00dfeed */

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

static const char* TypeName(mode_t mode) {
    if (S_ISCHR(mode)) {
        return "chr";
    }
    if (S_ISREG(mode)) {
        return "reg";
    }
    if (S_ISDIR(mode)) {
        return "dir";
    }
    return "other";
}

int main(void) {
    const char* path = "/dev/fdtexport";
    struct stat status;
    if (stat(path, &status) != 0) {
        printf("stat=%s\n", strerror(errno));
        return 0;
    }
    printf("stat=%s ", TypeName(status.st_mode));
    const int descriptor = open(path, O_RDONLY);
    if (descriptor < 0) {
        printf("open=%s\n", strerror(errno));
        return 0;
    }
    const off_t size = lseek(descriptor, 0, SEEK_END);
    if (size < 0) {
        printf("open=ok size=%s\n", strerror(errno));
        return 0;
    }
    printf("open=ok size=%lld ", (long long)size);
    if (size < 4) {
        printf("magic=none\n");
        return 0;
    }
    const unsigned char* blob = mmap(NULL, (size_t)size, PROT_READ, MAP_SHARED, descriptor, 0);
    if (blob == MAP_FAILED) {
        printf("mmap=%s\n", strerror(errno));
        return 0;
    }
    printf("magic=%02x%02x%02x%02x\n", blob[0], blob[1], blob[2], blob[3]);
    munmap((void*)blob, (size_t)size);
    close(descriptor);
    return 0;
}
