/* The stand-in for "/dev/fdtexport": see FdtExportInterposer.h and docs/fdtexport-interposer.md.
 *
 * Only the one path is answered here. The descriptor handed out for it is a real descriptor of
 * the blob file (or of /dev/null for an empty export), so lseek and mmap work on it as the
 * plug-in expects; they are interposed only to make them fail for the kinds that ask for it. */

#define _GNU_SOURCE
#include "FdtExportInterposer.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#define EXPORTED __attribute__((visibility("default")))

static const char kExportPath[] = "/dev/fdtexport";

/* The choice made through FdtExportUse; the environment decides while sUseApi is 0. */
static pthread_mutex_t sMutex = PTHREAD_MUTEX_INITIALIZER;
static int sUseApi = 0;
static TFdtExportKind sApiKind = eFdtExportPassThrough;
static char sApiFile[4096];
static unsigned sOpenCount = 0;

/* Descriptors handed out for the export, with the kind they were opened as: lseek and mmap
 * fail only on these. The plug-in never closes them, so a number here is never reused. */
enum { kTrackedDescriptors = 256 };
static int sTrackedDescriptor[kTrackedDescriptors];
static TFdtExportKind sTrackedKind[kTrackedDescriptors];
static int sTrackedCount = 0;

typedef struct {
    TFdtExportKind kind;
    char file[4096];
} TChoice;

static const struct {
    const char* name;
    TFdtExportKind kind;
} kKindNames[] = {
    {"passthrough", eFdtExportPassThrough},
    {"chardev", eFdtExportCharDevice},
    {"missing", eFdtExportMissing},
    {"regular", eFdtExportRegular},
    {"directory", eFdtExportDirectory},
    {"unopenable", eFdtExportUnopenable},
    {"empty", eFdtExportEmpty},
    {"unseekable", eFdtExportUnseekable},
    {"unmappable", eFdtExportUnmappable},
};

EXPORTED int FdtExportKindFromName(const char* text) {
    size_t index;
    for (index = 0; index < sizeof kKindNames / sizeof kKindNames[0]; ++index) {
        if (text != NULL && strcmp(text, kKindNames[index].name) == 0) {
            return (int)kKindNames[index].kind;
        }
    }
    return -1;
}

EXPORTED void FdtExportUse(TFdtExportKind kind, const char* blobFile) {
    pthread_mutex_lock(&sMutex);
    sUseApi = 1;
    sApiKind = kind;
    sApiFile[0] = '\0';
    if (blobFile != NULL) {
        strncpy(sApiFile, blobFile, sizeof sApiFile - 1);
        sApiFile[sizeof sApiFile - 1] = '\0';
    }
    pthread_mutex_unlock(&sMutex);
}

EXPORTED void FdtExportUseEnvironment(void) {
    pthread_mutex_lock(&sMutex);
    sUseApi = 0;
    pthread_mutex_unlock(&sMutex);
}

EXPORTED unsigned FdtExportOpenCount(void) {
    unsigned count;
    pthread_mutex_lock(&sMutex);
    count = sOpenCount;
    pthread_mutex_unlock(&sMutex);
    return count;
}

/* The current choice. Without one, and without MODEMLOADER_FDT_FILE or MODEMLOADER_FDT_KIND,
 * the real path is used. A file without a kind is a character device; an unknown kind name is
 * treated as no stand-in, so a typo shows up as the target's own "missing export" behaviour. */
static TChoice CurrentChoice(void) {
    TChoice choice;
    choice.kind = eFdtExportPassThrough;
    choice.file[0] = '\0';
    pthread_mutex_lock(&sMutex);
    if (sUseApi) {
        choice.kind = sApiKind;
        memcpy(choice.file, sApiFile, sizeof choice.file);
        pthread_mutex_unlock(&sMutex);
        return choice;
    }
    pthread_mutex_unlock(&sMutex);

    const char* file = getenv("MODEMLOADER_FDT_FILE");
    const char* kindName = getenv("MODEMLOADER_FDT_KIND");
    if (file != NULL) {
        strncpy(choice.file, file, sizeof choice.file - 1);
        choice.file[sizeof choice.file - 1] = '\0';
    }
    if (kindName != NULL && kindName[0] != '\0') {
        const int kind = FdtExportKindFromName(kindName);
        choice.kind = kind < 0 ? eFdtExportPassThrough : (TFdtExportKind)kind;
    } else if (choice.file[0] != '\0') {
        choice.kind = eFdtExportCharDevice;
    }
    return choice;
}

static int IsExportPath(const char* path) { return path != NULL && strcmp(path, kExportPath) == 0; }

static void* RealFunction(void** cache, const char* name) {
    void* function = __atomic_load_n(cache, __ATOMIC_ACQUIRE);
    if (function == NULL) {
        function = dlsym(RTLD_NEXT, name);
        __atomic_store_n(cache, function, __ATOMIC_RELEASE);
    }
    return function;
}

/* The C library's own definitions, found after this library's in the lookup order. */
typedef int (*TOpenFunction)(const char*, int, ...);
typedef int (*TStatFunction)(const char*, struct stat*);
typedef int (*TStat64Function)(const char*, struct stat64*);
typedef off_t (*TLseekFunction)(int, off_t, int);
typedef off64_t (*TLseek64Function)(int, off64_t, int);
typedef void* (*TMmapFunction)(void*, size_t, int, int, int, off_t);
typedef void* (*TMmap64Function)(void*, size_t, int, int, int, off64_t);

#define REAL(type, name)                     \
    static void* real_##name##_cache = NULL; \
    const type real_##name = (type)RealFunction(&real_##name##_cache, #name)

static int RealOpen(const char* path, int flags, mode_t mode) {
    REAL(TOpenFunction, open);
    return real_open(path, flags, mode);
}

static int RealStat(const char* path, struct stat* status) {
    REAL(TStatFunction, stat);
    return real_stat(path, status);
}

static void Track(int descriptor, TFdtExportKind kind) {
    pthread_mutex_lock(&sMutex);
    ++sOpenCount;
    int index;
    for (index = 0; index < sTrackedCount; ++index) {
        if (sTrackedDescriptor[index] == descriptor) {
            sTrackedKind[index] = kind;
            pthread_mutex_unlock(&sMutex);
            return;
        }
    }
    if (sTrackedCount < kTrackedDescriptors) {
        sTrackedDescriptor[sTrackedCount] = descriptor;
        sTrackedKind[sTrackedCount] = kind;
        ++sTrackedCount;
    }
    pthread_mutex_unlock(&sMutex);
}

/* The kind `descriptor` was opened as, or pass-through when it is not the export's. */
static TFdtExportKind TrackedKind(int descriptor) {
    TFdtExportKind kind = eFdtExportPassThrough;
    pthread_mutex_lock(&sMutex);
    int index;
    for (index = 0; index < sTrackedCount; ++index) {
        if (sTrackedDescriptor[index] == descriptor) {
            kind = sTrackedKind[index];
        }
    }
    pthread_mutex_unlock(&sMutex);
    return kind;
}

/* Status of the export as `choice` describes it; -1 with errno set when it does not exist. */
static int ExportStatus(const TChoice* choice, struct stat* status) {
    if (choice->kind == eFdtExportMissing) {
        errno = ENOENT;
        return -1;
    }
    if (choice->file[0] == '\0' || RealStat(choice->file, status) != 0) {
        memset(status, 0, sizeof *status);
        status->st_mode = 0444;
    }
    mode_t type = S_IFCHR;
    if (choice->kind == eFdtExportRegular) {
        type = S_IFREG;
    } else if (choice->kind == eFdtExportDirectory) {
        type = S_IFDIR;
    }
    status->st_mode = (status->st_mode & ~(mode_t)S_IFMT) | type;
    if (choice->kind == eFdtExportEmpty) {
        status->st_size = 0;
    }
    return 0;
}

/* Opens the export as `choice` describes it. */
static int ExportOpen(const TChoice* choice, int flags, mode_t mode) {
    int descriptor;
    switch (choice->kind) {
        case eFdtExportMissing:
            errno = ENOENT;
            return -1;
        case eFdtExportUnopenable:
            errno = EACCES;
            return -1;
        case eFdtExportEmpty:
            descriptor = RealOpen("/dev/null", flags, mode);
            break;
        default:
            if (choice->file[0] == '\0') {
                errno = ENOENT;
                return -1;
            }
            descriptor = RealOpen(choice->file, flags, mode);
            break;
    }
    if (descriptor >= 0) {
        Track(descriptor, choice->kind);
    }
    return descriptor;
}

static mode_t ModeArgument(int flags, va_list arguments) {
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
        return (mode_t)va_arg(arguments, int);
    }
    return 0;
}

static int OpenPath(const char* path, int flags, mode_t mode, int largeFile) {
    if (IsExportPath(path)) {
        const TChoice choice = CurrentChoice();
        if (choice.kind != eFdtExportPassThrough) {
            return ExportOpen(&choice, flags, mode);
        }
    }
    if (largeFile) {
        REAL(TOpenFunction, open64);
        return real_open64(path, flags, mode);
    }
    return RealOpen(path, flags, mode);
}

EXPORTED int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = ModeArgument(flags, arguments);
    va_end(arguments);
    return OpenPath(path, flags, mode, 0);
}

EXPORTED int open64(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = ModeArgument(flags, arguments);
    va_end(arguments);
    return OpenPath(path, flags, mode, 1);
}

/* The fortified entries a build with _FORTIFY_SOURCE calls instead of open. */
EXPORTED int __open_2(const char* path, int flags) { return OpenPath(path, flags, 0, 0); }
EXPORTED int __open64_2(const char* path, int flags) { return OpenPath(path, flags, 0, 1); }

EXPORTED int stat(const char* restrict path, struct stat* restrict status) {
    if (IsExportPath(path)) {
        const TChoice choice = CurrentChoice();
        if (choice.kind != eFdtExportPassThrough) {
            return ExportStatus(&choice, status);
        }
    }
    return RealStat(path, status);
}

EXPORTED int stat64(const char* restrict path, struct stat64* restrict status) {
    if (IsExportPath(path)) {
        const TChoice choice = CurrentChoice();
        if (choice.kind != eFdtExportPassThrough) {
            struct stat narrow;
            const int result = ExportStatus(&choice, &narrow);
            if (result == 0) {
                /* Field by field: on 32-bit targets (armhf) the two records differ in layout. */
                memset(status, 0, sizeof *status);
                status->st_dev = narrow.st_dev;
                status->st_ino = narrow.st_ino;
                status->st_mode = narrow.st_mode;
                status->st_nlink = narrow.st_nlink;
                status->st_uid = narrow.st_uid;
                status->st_gid = narrow.st_gid;
                status->st_rdev = narrow.st_rdev;
                status->st_size = narrow.st_size;
                status->st_blksize = narrow.st_blksize;
                status->st_blocks = narrow.st_blocks;
                status->st_atim = narrow.st_atim;
                status->st_mtim = narrow.st_mtim;
                status->st_ctim = narrow.st_ctim;
            }
            return result;
        }
    }
    REAL(TStat64Function, stat64);
    return real_stat64(path, status);
}

EXPORTED off_t lseek(int descriptor, off_t offset, int whence) {
    if (TrackedKind(descriptor) == eFdtExportUnseekable) {
        errno = ESPIPE;
        return -1;
    }
    REAL(TLseekFunction, lseek);
    return real_lseek(descriptor, offset, whence);
}

EXPORTED off64_t lseek64(int descriptor, off64_t offset, int whence) {
    if (TrackedKind(descriptor) == eFdtExportUnseekable) {
        errno = ESPIPE;
        return -1;
    }
    REAL(TLseek64Function, lseek64);
    return real_lseek64(descriptor, offset, whence);
}

EXPORTED void* mmap(void* address, size_t length, int protection, int flags, int descriptor,
                    off_t offset) {
    if (descriptor >= 0 && TrackedKind(descriptor) == eFdtExportUnmappable) {
        errno = ENODEV;
        return MAP_FAILED;
    }
    REAL(TMmapFunction, mmap);
    return real_mmap(address, length, protection, flags, descriptor, offset);
}

EXPORTED void* mmap64(void* address, size_t length, int protection, int flags, int descriptor,
                      off64_t offset) {
    if (descriptor >= 0 && TrackedKind(descriptor) == eFdtExportUnmappable) {
        errno = ENODEV;
        return MAP_FAILED;
    }
    REAL(TMmap64Function, mmap64);
    return real_mmap64(address, length, protection, flags, descriptor, offset);
}
