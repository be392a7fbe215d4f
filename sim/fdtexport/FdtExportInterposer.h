#pragma once
/* Stands in for the kernel's device-tree export "/dev/fdtexport" on a machine that has none.
 *
 * libfdtexport_interposer.so defines stat, open, lseek and mmap (and their glibc variants). For
 * exactly the path "/dev/fdtexport" it answers as the export the test asked for, backed by a blob
 * file of the test's choosing; every other call reaches the C library unchanged. It is loaded
 * either with LD_PRELOAD (controlled by MODEMLOADER_FDT_FILE and MODEMLOADER_FDT_KIND, see
 * docs/fdtexport-interposer.md) or linked into a test executable, whose own calls and those of
 * the plug-in objects linked into it then reach these definitions first.
 *
 * A choice made through FdtExportUse overrides the environment until FdtExportUseEnvironment.
 * Calls may come from any thread; the choice itself is made by the test's thread before the
 * plug-in looks at the export. */

#ifdef __cplusplus
extern "C" {
#endif

/* What "/dev/fdtexport" looks like. */
typedef enum {
    eFdtExportPassThrough = 0, /* no stand-in: the real path, as on the target */
    eFdtExportCharDevice,      /* a character device whose bytes are the blob file's */
    eFdtExportMissing,         /* stat and open fail with ENOENT */
    eFdtExportRegular,         /* stat says regular file (the blob file's own status) */
    eFdtExportDirectory,       /* stat says directory */
    eFdtExportUnopenable,      /* stat says character device; open fails with EACCES */
    eFdtExportEmpty,           /* a character device of size 0 */
    eFdtExportUnseekable,      /* a character device whose lseek fails with ESPIPE */
    eFdtExportUnmappable,      /* a character device whose mmap fails with ENODEV */
} TFdtExportKind;

/* Makes "/dev/fdtexport" look like `kind`, backed by `blobFile` (copied; may be null for the
 * kinds that read no bytes). */
void FdtExportUse(TFdtExportKind kind, const char* blobFile);

/* Returns control to MODEMLOADER_FDT_FILE and MODEMLOADER_FDT_KIND. */
void FdtExportUseEnvironment(void);

/* How many times "/dev/fdtexport" was opened successfully since the library was loaded. */
unsigned FdtExportOpenCount(void);

/* The kind named by `text` ("chardev", "missing", ...); -1 for an unknown name. */
int FdtExportKindFromName(const char* text);

#ifdef __cplusplus
}
#endif
