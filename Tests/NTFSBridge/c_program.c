/* Uses every function of ntb.h from C11, on the image file named by its argument. */
#include "NTFSBridge/ntb.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define CHECK(condition)                                                                           \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition);                        \
            exit(1);                                                                               \
        }                                                                                          \
    } while (0)

static int32_t read_file(void* context, void* buffer, uint64_t offset, uint64_t length) {
    return pread(*(int*)context, buffer, length, (off_t)offset) == (ssize_t)length ? 0 : EIO;
}

static int32_t write_file(void* context, const void* buffer, uint64_t offset, uint64_t length) {
    return pwrite(*(int*)context, buffer, length, (off_t)offset) == (ssize_t)length ? 0 : EIO;
}

static int32_t count_entry(void* context, const char* name, uint64_t ino, uint32_t type) {
    CHECK(name[0] != '\0' && ino >= 16 && type != 0);
    *(int*)context += 1;
    return 0;
}

static int32_t count_name(void* context, const char* name) {
    CHECK(strcmp(name, "stream") == 0);
    *(int*)context += 1;
    return 0;
}

static void change_names(ntb_vol* vol, uint64_t* file) {
    uint64_t directory = 0;
    uint64_t link = 0;
    uint64_t found = 0;
    char* target = NULL;
    int count = 0;
    CHECK(ntb_create(vol, NTB_ROOT_INO, "directory", NTB_TYPE_DIRECTORY, &directory) == 0);
    CHECK(ntb_create(vol, NTB_ROOT_INO, "file", NTB_TYPE_FILE, file) == 0);
    CHECK(ntb_create(vol, NTB_ROOT_INO, "removed", NTB_TYPE_FILE, &found) == 0);
    CHECK(ntb_symlink(vol, NTB_ROOT_INO, "link", "directory/moved", &link) == 0);
    CHECK(ntb_readlink(vol, link, &target) == 0 && strcmp(target, "directory/moved") == 0);
    free(target);
    CHECK(ntb_unlink(vol, NTB_ROOT_INO, "removed") == 0);
    CHECK(ntb_rename(vol, NTB_ROOT_INO, "file", directory, "moved") == 0);
    CHECK(ntb_lookup(vol, directory, "moved", &found) == 0 && found == *file);
    CHECK(ntb_readdir(vol, NTB_ROOT_INO, count_entry, &count) == 0 && count == 2);
}

static void change_file(ntb_vol* vol, uint64_t file) {
    const ntb_time time = {1234567890, 500};
    const char text[] = "Hello from C, and more";
    char back[sizeof text] = "";
    ntb_attr attr;
    void* value = NULL;
    uint64_t size = 0;
    int count = 0;
    CHECK(ntb_write(vol, file, 0, text, strlen(text), &size) == 0 && size == strlen(text));
    CHECK(ntb_truncate(vol, file, 12) == 0);
    CHECK(ntb_read(vol, file, 6, back, sizeof back, &size) == 0 && size == 6);
    CHECK(strcmp(back, "from C") == 0);
    CHECK(ntb_setxattr(vol, file, "stream", "value", 5, NTB_XATTR_CREATE) == 0);
    CHECK(ntb_setxattr(vol, file, "other", "", 0, NTB_XATTR_ANY) == 0);
    CHECK(ntb_removexattr(vol, file, "other") == 0);
    CHECK(ntb_listxattr(vol, file, count_name, &count) == 0 && count == 1);
    CHECK(ntb_getxattr(vol, file, "stream", &value, &size) == 0 && size == 5);
    free(value);
    CHECK(ntb_set_times(vol, file, NULL, &time, NULL, NULL) == 0);
    CHECK(ntb_set_hidden(vol, file, 1) == 0);
    CHECK(ntb_getattr(vol, file, &attr) == 0 && attr.size == 12);
    CHECK(attr.modify_time.seconds == 1234567890 && (attr.flags & NTB_FLAG_HIDDEN) != 0);
    CHECK(ntb_flush(vol, file) == 0);
}

static void change_volume(ntb_vol* vol) {
    ntb_statfs space;
    ntb_stats stats;
    char* label = NULL;
    CHECK(ntb_is_readonly(vol) == 0);
    CHECK(ntb_set_label(vol, "From C") == 0);
    label = ntb_label(vol);
    CHECK(label != NULL && strcmp(label, "From C") == 0);
    free(label);
    ntb_set_windows_names(vol, 1);
    CHECK(ntb_windows_names(vol) == 1);
    CHECK(ntb_statfs_get(vol, &space) == 0 && space.freeClusters > 0 && space.totalFiles > 0);
    CHECK(ntb_flush_dirty(vol) == 0 && ntb_sync(vol) == 0);
    ntb_get_stats(vol, &stats);
    CHECK(stats.deviceWrites > 0 && stats.cacheHits > 0 && stats.dirtyPages == 0);
}

int main(int argc, char** argv) {
    int file = argc == 2 ? open(argv[1], O_RDWR) : -1;
    ntb_io io = {.context = &file, .read = read_file, .write = write_file, .block_size = 512};
    uint64_t serial = 0;
    uint64_t ino = 0;
    int32_t error = -1;
    ntb_vol* vol = NULL;
    CHECK(file >= 0);
    io.size = (uint64_t)lseek(file, 0, SEEK_END);
    CHECK(ntb_probe(&io, &serial) == 0);
    vol = ntb_mount(&io, 0, &error);
    CHECK(vol != NULL && error == 0 && ntb_serial(vol) == serial);
    change_names(vol, &ino);
    change_file(vol, ino);
    change_volume(vol);
    CHECK(ntb_umount(vol) == 0);
    return close(file);
}
