/* Uses ntb.h from C11, on the image file named by its argument. */
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

int main(int argc, char** argv) {
    int file = argc == 2 ? open(argv[1], O_RDWR) : -1;
    ntb_io io = {.context = &file, .read = read_file, .write = write_file, .block_size = 512};
    const char text[] = "Hello from C";
    ntb_extent log;
    uint32_t count = 0;
    uint64_t serial = 0;
    uint64_t ino = 0;
    uint64_t done = 0;
    int32_t error = -1;
    char* label = NULL;
    ntb_vol* vol = NULL;
    CHECK(file >= 0);
    io.size = (uint64_t)lseek(file, 0, SEEK_END);
    CHECK(ntb_probe(&io, &serial) == 0);
    CHECK(ntb_log_extents(&io, &log, 1, &count) == 0 && count == 1 && log.length >= 1 << 20);
    vol = ntb_mount(&io, 0, &error);
    CHECK(vol != NULL && error == 0 && ntb_serial(vol) == serial);
    label = ntb_label(vol);
    CHECK(label != NULL && strcmp(label, "Sample") == 0);
    free(label);
    CHECK(ntb_create(vol, NTB_ROOT_INO, "file", NTB_TYPE_FILE, &ino) == 0);
    CHECK(ntb_write(vol, ino, 0, text, strlen(text), &done) == 0 && done == strlen(text));
    CHECK(ntb_umount(vol) == 0);
    return close(file);
}
