/* SPDX-License-Identifier: GPL-2.0-only */
/* A whole backup program in C, from quendrel(4) and quendrel-socket(7) alone.
 *
 * usage: backup CONTROL MAJOR:MINOR IMAGE KEY [COMMAND]
 *
 * CONTROL is /dev/quendrel or a daemon's control.sock. IMAGE gets the device's bytes as of one moment, and KEY the key
 * of that moment. When both are there already, from the last run, only the blocks changed since are copied into IMAGE,
 * else all of them. IMAGE is no backup while this runs, and KEY is gone from the snapshot on, so that the next run is a
 * full one when this one fails. COMMAND, if any, is run by the shell right after the snapshot: what it writes to the
 * device is not in the image.
 *
 * Build it with: cc backup.c $(pkg-config --cflags quendrel) -o backup
 */
#define _FILE_OFFSET_BITS 64 /* for devices above 2 GiB in a 32-bit program */
#define _GNU_SOURCE
#include <quendrel.h>

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

enum { PAGE = 4096, MOST_PAGES = 256, MOST_CACHED_BLOCKS = 65536 };
enum { COMMAND = 1, MAP = 2, UNMAP = 3 }; /* kinds of requests to a daemon */

struct request {
    uint32_t kind, a, b, c, d;
};
struct reply {
    int32_t result;
    uint32_t version, count, pages[MOST_PAGES];
};

static int control = -1;
static int is_socket;

static void fail(const char *what, int result)
{
    if (result < 0)
        fprintf(stderr, "backup: %s: %s\n", what, strerror(-result));
    else
        fprintf(stderr, "backup: %s: result %d, see quendrel(4)\n", what, result);
    exit(1);
}

static void need(int condition, const char *what)
{
    if (!condition) {
        fprintf(stderr, "backup: %s\n", what);
        exit(1);
    }
}

/* ---- The way to the driver ------------------------------------------------------------------------------------------ */

/* Memory below 4 GiB, which the driver's 32-bit pointers reach. */
static void *low_memory(size_t bytes, int protection)
{
    void *p = mmap(NULL, bytes, protection, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_32BIT, -1, 0);
    if (p == MAP_FAILED)
        fail("memory below 4 GiB", -errno);
    return p;
}

static quendrel_user_ptr address_of(const void *p) { return (quendrel_user_ptr)(uintptr_t)p; }

/* One reply, and the descriptor that comes with it in *passed, or -1. */
static void receive(struct reply *reply, int *passed)
{
    union {
        struct cmsghdr align;
        char bytes[CMSG_SPACE(sizeof(int))];
    } extra;
    struct iovec part = {reply, sizeof *reply};
    struct msghdr message = {0};
    struct cmsghdr *c;
    ssize_t got;

    *passed = -1;
    do {
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = &extra;
        message.msg_controllen = sizeof extra;
        got = recvmsg(control, &message, MSG_CMSG_CLOEXEC);
    } while (got < 0 && errno == EINTR);
    if (got < 0)
        fail("reading the daemon's reply", -errno);
    need(got > 0, "the daemon ended the connection; its log says why");
    need(got >= 12 && reply->count <= MOST_PAGES && (size_t)got == 12 + 4 * (size_t)reply->count, "a reply of a wrong size");
    need(reply->version == 1, "the daemon speaks another version of the protocol");
    c = CMSG_FIRSTHDR(&message);
    if (c && c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_RIGHTS)
        memcpy(passed, CMSG_DATA(c), sizeof *passed);
}

static int ask(struct request request, struct reply *reply, int *passed)
{
    ssize_t sent;
    do
        sent = send(control, &request, sizeof request, MSG_NOSIGNAL);
    while (sent < 0 && errno == EINTR);
    if (sent < 0)
        fail("sending to the daemon", -errno);
    receive(reply, passed);
    return reply->result;
}

static void open_control(const char *path)
{
    struct stat st;
    struct sockaddr_un to = {0};
    struct reply reply;
    int passed;

    if (stat(path, &st) != 0)
        fail(path, -errno);
    is_socket = S_ISSOCK(st.st_mode);
    if (!is_socket) {
        control = open(path, O_RDWR | O_CLOEXEC);
        if (control < 0)
            fail(path, -errno);
        return;
    }
    need(strlen(path) < sizeof to.sun_path, "the path of the socket is too long");
    to.sun_family = AF_UNIX;
    strcpy(to.sun_path, path);
    control = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (control < 0 || connect(control, (struct sockaddr *)&to, sizeof to) != 0)
        fail(path, -errno);
    receive(&reply, &passed);
    if (reply.result != 0)
        fail(path, reply.result);
}

/* The driver's result of a command, or a negative errno. */
static int command(uint32_t number, const void *record)
{
    struct reply reply;
    int passed, result;

    if (is_socket)
        return ask((struct request){COMMAND, number, address_of(record), 0, 0}, &reply, &passed);
    result = ioctl(control, (unsigned long)number, record);
    return result >= 0 ? result : -errno;
}

static unsigned char *map_area(size_t bytes)
{
    struct reply reply;
    unsigned char *area;
    uint32_t i;
    int memory, result;

    if (!is_socket) {
        area = mmap(NULL, bytes, PROT_READ, MAP_PRIVATE | MAP_32BIT, control, 0);
        if (area == MAP_FAILED)
            fail("mapping a transfer area", -errno);
        if ((uintptr_t)area < PAGE) /* a result of the driver in the place of an address */
            fail("mapping a transfer area", (int)(uintptr_t)area);
        return area;
    }
    area = low_memory(bytes, PROT_NONE);
    result = ask((struct request){MAP, address_of(area), (uint32_t)bytes, 1, 0}, &reply, &memory);
    if (result != 0)
        fail("mapping a transfer area", result);
    need(reply.count == bytes / PAGE && memory >= 0, "the daemon mapped something else than it was asked for");
    for (i = 0; i < reply.count; i++)
        if (mmap(area + (size_t)i * PAGE, PAGE, PROT_READ, MAP_PRIVATE | MAP_FIXED, memory, (off_t)reply.pages[i] * PAGE) ==
            MAP_FAILED)
            fail("mapping a transfer area", -errno);
    close(memory);
    return area;
}

static void unmap_area(unsigned char *area, size_t bytes)
{
    struct reply reply;
    int passed, result;

    munmap(area, bytes);
    if (!is_socket)
        return;
    result = ask((struct request){UNMAP, address_of(area), (uint32_t)bytes, 0, 0}, &reply, &passed);
    if (result != 0)
        fail("giving a transfer area back", result);
}

/* How often files of the kernel's control device have been closed, or -1: a close by another program takes the protection
 * from this backup, and nothing else shows it. A daemon lets nobody else in, unless it was told to. */
static long closes(void)
{
    FILE *file = is_socket ? NULL : fopen("/sys/module/quendrel/parameters/closes", "r");
    long count = -1;
    if (!file)
        return -1;
    if (fscanf(file, "%ld", &count) != 1)
        count = -1;
    fclose(file);
    return count;
}

/* Returns when the driver has closed the device: whoever opens it next finds it free. */
static void close_control(void)
{
    char rest[16];
    if (is_socket) {
        shutdown(control, SHUT_WR);
        while (recv(control, rest, sizeof rest, 0) > 0)
            ;
    }
    close(control);
}

/* ---- The backup ------------------------------------------------------------------------------------------------------ */

/* The records, in memory that the driver reaches. */
static struct records {
    GetBlockSize get_block_size;
    BlockSize block_size;
    StartBackup start;
    SnapShot snapshot;
    AMSessionKey key;
    GetState get_state;
    State state;
    GetAutoMapState get_tracking;
    AutoMapState tracking;
    UserBlockMap map;
    GetAutoMap get_map;
    LoadBlockMap load_map;
    ReadBlocks read;
} * r;

static void must(uint32_t number, const void *record, const char *what)
{
    const int result = command(number, record);
    if (result != 0)
        fail(what, result);
}

static uint32_t state_now(void)
{
    r->get_state.s = address_of(&r->state);
    r->get_state.len = sizeof r->state;
    must(QUENDREL_GET_STATE, &r->get_state, "QUENDREL_GET_STATE");
    return r->state.state;
}

static void need_state(uint32_t state, const char *when)
{
    const uint32_t now = state_now();
    if (now != state) {
        fprintf(stderr, "backup: the state %s is %u and not %u, see quendrel(4)\n", when, (unsigned)now, (unsigned)state);
        exit(1);
    }
}

static void get_tracking(void)
{
    r->get_tracking.ams = address_of(&r->tracking);
    r->get_tracking.len = sizeof r->tracking;
    must(QUENDREL_GET_AUTOMAP_STATE, &r->get_tracking, "QUENDREL_GET_AUTOMAP_STATE");
    need(r->tracking.state == 1, "changes of the device are not tracked");
}

static void snapshot(void)
{
    r->snapshot.amsKey = address_of(&r->key);
    r->snapshot.len = sizeof r->key;
    must(QUENDREL_SNAPSHOT, &r->snapshot, "QUENDREL_SNAPSHOT");
}

static int in_map(const unsigned char *map, uint32_t block) { return map[block / 8] >> block % 8 & 1; }

/* Takes the snapshot and fills `map` with the blocks to copy, all of them when the changed ones are not known. How many
 * blocks these are. */
static uint32_t choose_blocks(unsigned char *map, uint32_t blocks, int have_key)
{
    const size_t map_bytes = ((size_t)blocks + 7) / 8;
    uint32_t block, count = 0;
    int result;

    if (!have_key)
        must(QUENDREL_NO_LOAD_FROM_AUTOMAP, NULL, "QUENDREL_NO_LOAD_FROM_AUTOMAP");
    snapshot();
    if (have_key && state_now() == QUENDREL_STATE_STARTED) { /* a success that says: not the key */
        have_key = 0;
        must(QUENDREL_NO_LOAD_FROM_AUTOMAP, NULL, "QUENDREL_NO_LOAD_FROM_AUTOMAP");
        snapshot();
    }
    need_state(QUENDREL_STATE_SNAPSHOT, "after the snapshot");

    /* Before a map is loaded: that would take the place of this one. */
    r->map.map = address_of(map);
    r->map.mapLen = blocks;
    r->get_map.bm = address_of(&r->map);
    result = have_key ? command(QUENDREL_GET_AUTOMAP, &r->get_map) : QUENDREL_REFUSED;
    if (result != 0 && result != QUENDREL_REFUSED)
        fail("QUENDREL_GET_AUTOMAP", result);
    for (block = 0; result == 0 && block < blocks; block++)
        count += (uint32_t)in_map(map, block);
    if (count == 0) { /* no map, or an empty one, which may be one that was lost */
        memset(map, 0xff, map_bytes);
        count = blocks;
    }
    need_state(QUENDREL_STATE_SNAPSHOT, "after the changed blocks were fetched");
    return count;
}

/* Copies the blocks of `map`, each of them once. */
static void copy(const unsigned char *map, uint32_t blocks, int image)
{
    const uint32_t block_size = (uint32_t)r->state.blockSize, most = (uint32_t)r->state.mmapSize / block_size;
    const size_t area_bytes = (size_t)r->state.mmapSize;
    unsigned char *area = map_area(area_bytes);
    uint32_t block = 0, count;

    while (block < blocks) {
        size_t done = 0, bytes;
        for (count = 0; count < most && block + count < blocks && in_map(map, block + count); count++)
            ;
        if (count == 0) {
            block++;
            continue;
        }
        r->read.startBlockNum = block;
        r->read.numBlocks = count;
        r->read.data = address_of(area);
        must(QUENDREL_READ_BLOCKS, &r->read, "QUENDREL_READ_BLOCKS");
        for (bytes = (size_t)count * block_size; done < bytes;) {
            const ssize_t put = pwrite(image, area + done, bytes - done, (off_t)block * block_size + (off_t)done);
            if (put < 0)
                fail("writing the image", -errno);
            done += (size_t)put;
        }
        block += count;
    }
    unmap_area(area, area_bytes);
}

static int read_key(const char *path)
{
    FILE *file = fopen(path, "rb");
    int whole;
    if (!file)
        return 0;
    whole = fread(&r->key, sizeof r->key, 1, file) == 1;
    fclose(file);
    return whole;
}

static void write_key(const char *path, const AMSessionKey *key)
{
    FILE *file = fopen(path, "wb");
    need(file && fwrite(key, sizeof *key, 1, file) == 1 && fclose(file) == 0, "the key could not be written");
}

int main(int argc, char **argv)
{
    unsigned major, minor;
    uint32_t blocks, count;
    uint64_t whole_blocks;
    unsigned char *map;
    int have_key, image;
    long closes_before;
    AMSessionKey key;
    struct stat st;

    if (argc < 5 || argc > 6 || sscanf(argv[2], "%u:%u", &major, &minor) != 2) {
        fprintf(stderr, "usage: backup CONTROL MAJOR:MINOR IMAGE KEY [COMMAND]\n");
        return 2;
    }
    r = low_memory(sizeof *r, PROT_READ | PROT_WRITE);
    image = open(argv[3], O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (image < 0 || fstat(image, &st) != 0)
        fail(argv[3], -errno);
    have_key = read_key(argv[4]);
    open_control(argv[1]);
    closes_before = closes();

    r->get_block_size.major = major;
    r->get_block_size.minor = minor;
    r->get_block_size.bs = address_of(&r->block_size);
    r->get_block_size.len = sizeof r->block_size;
    must(QUENDREL_GET_BLOCK_SIZE, &r->get_block_size, "QUENDREL_GET_BLOCK_SIZE");
    whole_blocks = (uint64_t)r->block_size.partitionSizeKB * 1024 / (uint32_t)r->block_size.blockSize;
    need(whole_blocks > 0 && whole_blocks <= 0xfffffff8u, "the device has too few or too many blocks");
    blocks = (uint32_t)whole_blocks;
    have_key = have_key && (uint64_t)st.st_size == whole_blocks * (uint32_t)r->block_size.blockSize;

    r->start.major = major;
    r->start.minor = minor;
    r->start.totalBlocks = blocks;
    r->start.maxCacheBlocks = MOST_CACHED_BLOCKS;
    must(QUENDREL_START_BACKUP, &r->start, "QUENDREL_START_BACKUP");
    need_state(QUENDREL_STATE_STARTED, "after the start");
    need(r->state.blockSize == r->block_size.blockSize, "another file system is on the device now");

    if (unlink(argv[4]) != 0 && errno != ENOENT)
        fail(argv[4], -errno);
    map = low_memory(((size_t)blocks + 7) / 8, PROT_READ | PROT_WRITE);
    count = choose_blocks(map, blocks, have_key);
    get_tracking();
    key = r->tracking.amsKey;
    if (argc == 6)
        need(system(argv[5]) == 0, "the command failed");

    r->load_map.bm = address_of(&r->map);
    must(QUENDREL_LOAD_BLOCK_MAP, &r->load_map, "QUENDREL_LOAD_BLOCK_MAP");
    need_state(QUENDREL_STATE_MAP_LOADED, "after the map was loaded");
    if (ftruncate(image, (off_t)whole_blocks * r->block_size.blockSize) != 0)
        fail(argv[3], -errno);
    copy(map, blocks, image);

    need_state(QUENDREL_STATE_MAP_LOADED, "at the end");
    get_tracking();
    need(closes() == closes_before, "another program has closed the control device meanwhile");
    need(memcmp(&key, &r->tracking.amsKey, sizeof key) == 0, "another program has taken the tracking of the device over");
    close_control();
    if (fsync(image) != 0 || close(image) != 0)
        fail(argv[3], -errno);
    write_key(argv[4], &key);
    printf("%u of %u blocks\n", (unsigned)count, (unsigned)blocks);
    return 0;
}
