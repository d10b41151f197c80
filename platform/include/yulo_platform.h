/*
 * yulo_platform.h: the appliance's volume and share interfaces.
 *
 * This is the C interface yulotifyd uses to learn which data volumes are
 * mounted and where the shared folders are. libyuloplatform implements it on
 * two ordinary sources, re-read on every call:
 *   - the volume table, a JSON file listing the data volumes, of which only
 *     the entries whose mount point is currently mounted count;
 *   - Samba's configuration, whose sections with a "path" are the shares.
 * An appliance vendor may substitute its own library with this interface.
 *
 * Thread-safety: every function may be called from any thread; none keeps
 * state between calls. Errors are reported by return value only.
 */
#ifndef YULO_PLATFORM_H_
#define YULO_PLATFORM_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define YULO_VOLUME_KIND_USB 4

/* Longest mount point a record holds, terminating NUL included. */
#define YULO_VOLUME_MOUNT_POINT_SIZE 60

/* One mounted data volume. Lists returned by YULOMountVolAllEnum are linked
 * through `next`; a record filled by YULOMountVolInfoGet has next == NULL. */
typedef struct _YULO_VOLUME_INFO {
  int32_t vol_id;   /* the volume's id, unique in the volume table */
  int32_t vol_kind; /* YULO_VOLUME_KIND_USB for USB volumes */
  char reserved[44];
  char mount_point[YULO_VOLUME_MOUNT_POINT_SIZE]; /* NUL-terminated */
  struct _YULO_VOLUME_INFO* next;
} YULO_VOLUME_INFO;

/* A list of NUL-terminated strings. `count` is the number of elements. */
typedef struct _YULO_SZ_LIST {
  int count;
  int capacity;
  char** items;
} YULO_SZ_LIST, *PYULO_SZ_LIST;

/* The mounted entries of the volume table, in table order, as a list the
 * caller frees with YULOMountVolInfoFree. NULL when the table cannot be read
 * or no entry is mounted. The three arguments are reserved and must be 0. */
YULO_VOLUME_INFO* YULOMountVolAllEnum(int reserved1, int reserved2,
                                      int reserved3);

/* Fills `info` with the mounted entry whose mount point is exactly
 * `mount_point`. Returns 0 on success, negative otherwise. */
int YULOMountVolInfoGet(const char* mount_point, YULO_VOLUME_INFO* info);

/* Frees a list returned by YULOMountVolAllEnum. NULL is allowed. */
void YULOMountVolInfoFree(YULO_VOLUME_INFO* list);

/* Stores in *vol_id the id of the mounted volume that holds `path`: the
 * entry whose mount point is the longest prefix of `path` ending at a "/"
 * boundary. Returns a value > 0 on success, 0 or less otherwise. */
int VolumePathParse(const char* path, int* vol_id);

/* Appends the name of every share to *list (the list may be reallocated).
 * Returns the number of shares, or negative when the configuration cannot be
 * read. `flags` is reserved: every share is listed. */
int YULOShareEnum(PYULO_SZ_LIST* list, int flags);

/* Writes the absolute path of share `name` (case-insensitive), without a
 * trailing "/", into `buf` of `size` bytes. Returns 0 on success, non-zero
 * for an unknown share, an unreadable configuration or a buffer too small. */
int YULOSharePathGet(const char* name, char* buf, int size);

/* 1 when `path` exists (any file type), 0 otherwise. */
int YULOFileExist(const char* path);

/* A new empty list with room for about `size` bytes of strings, or NULL. */
PYULO_SZ_LIST YULOSzListAlloc(int size);
/* Element `index`, or NULL when out of range. */
const char* YULOSzListGet(PYULO_SZ_LIST list, int index);
/* Appends a copy of `text`; returns 0, or negative when out of memory. */
int YULOSzListAdd(PYULO_SZ_LIST* list, const char* text);
/* The number of elements; 0 for NULL. */
int YULOSzListCount(PYULO_SZ_LIST list);
void YULOSzListFree(PYULO_SZ_LIST list);

#ifdef __cplusplus
}
#endif

#endif /* YULO_PLATFORM_H_ */
