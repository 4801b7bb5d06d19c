// SPDX-License-Identifier: MIT
//
// board_bench FILE LINKED all|bounds progress|quiet: what the library's operations cost on the
// emulated board, into FILE as comma-separated values. On a clock that counts instructions
// the figures are instructions, the kernel's included. LINKED, "static" or "shared", goes
// into each line. `bounds` measures only what has to hold.
//
// Each figure is the least of many repetitions: those that a timer interrupt fell into are
// not among the least. The time of the measuring itself is taken off.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include "bench/board/bare.h"
#include "carddev_state.h"
#include "mivosdif/mivosdif.h"
#include "zel/zel.h"

namespace {

constexpr uint32_t kSector = CARD_SECTOR_SIZE;
constexpr uint32_t kFirst = 2048;  // where transfers begin on the card
constexpr uint32_t kMostChunks = 2047;
constexpr size_t kCardBytes = size_t{8} << 20;
constexpr uint32_t kMebibyte = 1u << 20;

FILE* results = nullptr;
const char* linked = nullptr;  // how the library came into this program
bool has_progress = false;

[[noreturn]] void Stop(const std::string& why)
{
    fprintf(stderr, "board_bench: %s (%s)\n", why.c_str(), strerror(errno));
    exit(1);
}

// --- measuring ----------------------------------------------------------------------

int64_t Now()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

constexpr int64_t kTick = 4000000;         // the kernel's timer interrupts, 250 a second
constexpr int64_t kAfterTick = 100000;     // what the kernel puts off to one is done by then
constexpr int64_t kMostForOneRead = 1000;  // a longer look at the clock was interrupted
constexpr int64_t kBatchCost = 400000;     // well below the time between two of them
constexpr int kMostInBatch = 512;
constexpr int kRepetitions = 30;

int64_t tick_phase = 0;  // where the interrupts lie between two multiples of kTick

void FindTicks()
{
    int64_t before = Now();
    for (;;) {
        const int64_t now = Now();
        if (now - before > kMostForOneRead) {
            tick_phase = now % kTick;
            return;
        }
        before = now;
    }
}

// Sleep until just after a timer interrupt: all repetitions then meet the next one at the same
// moment, in every run, or not at all.
void AwaitTick()
{
    const int64_t next = (Now() - tick_phase + kTick) / kTick * kTick + tick_phase + kAfterTick;
    const timespec when = {static_cast<time_t>(next / 1000000000),
                           static_cast<long>(next % 1000000000)};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &when, nullptr);
}

// The least time that `batch` calls took, one after the other.
template <class Prepare, class Operation>
int64_t Least(int batch, Prepare prepare, Operation operation)
{
    int64_t least = INT64_MAX;
    for (int i = 0; i < kRepetitions; i++) {
        AwaitTick();
        prepare();
        bool ok = true;
        const int64_t start = Now();
        for (int j = 0; j < batch; j++) {
            ok &= operation();
            __asm__ volatile("" : : : "memory");
        }
        least = std::min(least, Now() - start);
        if (!ok) {
            Stop("a measured operation failed");
        }
    }
    return least;
}

constexpr auto kNothing = [] { return true; };
constexpr auto kNoPreparation = [] {};

// What one call costs. With a preparation calls are measured one by one.
template <class Prepare, class Operation>
int64_t CostAfter(Prepare prepare, Operation operation)
{
    return Least(1, prepare, operation) - Least(1, kNoPreparation, kNothing);
}

template <class Operation>
int64_t Cost(Operation operation)
{
    for (int i = 0; i < 3; i++) {
        if (!operation()) {
            Stop("an operation failed before it was measured");
        }
    }
    const int64_t start = Now();
    operation();
    const int64_t one = std::max<int64_t>(Now() - start, 1);
    const int batch = static_cast<int>(std::clamp<int64_t>(kBatchCost / one, 1, kMostInBatch));
    // Once before each batch, after whatever ran during the sleep.
    const int64_t all = Least(batch, [&] { operation(); }, operation);
    const int64_t around = Least(batch, kNoPreparation, kNothing);
    return (all - around + batch / 2) / batch;
}

// --- results --------------------------------------------------------------------------

struct Row {
    const char* group;
    std::string device;
    std::string operation;
    std::string variant;
    uint32_t chunks;
    uint32_t bytes;
};

constexpr int64_t kNone = -1;

std::string Field(int64_t value)
{
    return value == kNone ? "" : std::to_string(value);
}

void Print(const Row& row, int64_t library, int64_t bare, int64_t loop)
{
    std::string difference;
    std::string ratio;
    if (library != kNone && bare != kNone) {
        difference = std::to_string(library - bare);
        if (bare > 0) {
            char text[32];
            snprintf(text, sizeof text, "%.4f",
                     static_cast<double>(library) / static_cast<double>(bare));
            ratio = text;
        }
    }
    fprintf(results, "%s,%s,%s,%s,%s,%u,%u,%s,%s,%s,%s,%s\n", linked, row.group, row.device.c_str(),
            row.operation.c_str(), row.variant.c_str(), row.chunks, row.bytes,
            Field(library).c_str(), Field(bare).c_str(), difference.c_str(), ratio.c_str(),
            Field(loop).c_str());
    fflush(results);
    static int rows = 0;
    rows++;
    if (has_progress) {
        fprintf(stderr, "\r%4d figures: %-60s", rows, (row.device + " " + row.operation).c_str());
    }
}

template <class Library, class Bare>
void Compare(const Row& row, Library library, Bare bare)
{
    const int64_t library_cost = Cost(library);
    Print(row, library_cost, Cost(bare), kNone);
}

template <class Library, class Bare, class Loop>
void Compare(const Row& row, Library library, Bare bare, Loop loop)
{
    const int64_t library_cost = Cost(library);
    const int64_t bare_cost = Cost(bare);
    Print(row, library_cost, bare_cost, Cost(loop));
}

// --- memory ---------------------------------------------------------------------------

alignas(4096) uint8_t memory[size_t{2} * kMebibyte];

enum class Layout { Contiguous, Scattered };

// A chunk list over `memory`. Scattered pieces have gaps of their own length between them.
class Chunks {
public:
    Chunks(uint32_t count, uint32_t bytes, Layout layout) : bytes_(bytes)
    {
        list_ = static_cast<MemoryChunkArray*>(
            malloc(sizeof(MemoryChunkArray) + count * sizeof(MemoryChunk)));
        const uint32_t length = bytes / count;
        const uint32_t step = layout == Layout::Contiguous ? length : 2 * length;
        list_->count = count;
        for (uint32_t i = 0; i < count; i++) {
            const auto address = reinterpret_cast<uintptr_t>(memory + size_t{i} * step);
            list_->chunk[i] = {static_cast<uint32_t>(address), length};
        }
    }
    ~Chunks() { free(list_); }
    Chunks(const Chunks&) = delete;
    Chunks& operator=(const Chunks&) = delete;

    MemoryChunkArray* List() const { return list_; }
    uint32_t Bytes() const { return bytes_; }
    uint32_t Sectors() const { return bytes_ / kSector; }

private:
    MemoryChunkArray* list_;
    uint32_t bytes_;
};

// --- devices --------------------------------------------------------------------------

void Put(const std::string& place, const char* file, const char* text)
{
    const std::string path = "/sys/kernel/debug/cards/" + place + "/" + file;
    const int fd = open(path.c_str(), O_WRONLY);
    if (fd < 0 || write(fd, text, strlen(text)) < 0) {
        Stop(path);
    }
    close(fd);
}

void InsertCards()
{
    const char* image = "/tmp/board_bench.img";
    const int fd = open(image, O_RDWR | O_CREAT | O_TRUNC, 0600);
    if (fd < 0 || ftruncate(fd, kCardBytes) < 0) {
        Stop(image);
    }
    close(fd);
    for (const char* place :
         {"zel0", "zel1", "zel2", "zel3", "zel4", "zel5", "mivo0", "mivo1", "ricoh"}) {
        Put(place, "insert", image);
        Put(place, "latency_us", "0");
        Put(place, "trace", "off");
    }
    Put("rtctrl", "trace", "off");
    unlink(image);
}

// A device, open twice: by the library and by bare calls.
struct Device {
    const char* name;
    const char* node;
    DrvInfo handle;
    BareDevice bare;
    uint32_t read;
    uint32_t write;  // flag 1
    uint32_t write_flag0;
    uint32_t rmw;
    uint32_t fat_write;
    uint32_t command_write;

    // How the library counts the length of a direct transfer.
    uint32_t Length(uint32_t sectors) const { return bare.is_mivo ? sectors : sectors * kSector; }
};

bool OpenLibrary(DrvInfo* handle, const char* node)
{
    snprintf(handle->dev_path, sizeof handle->dev_path, "%s", node);
    return DevDetect(handle) == 0 && DevInit(handle) >= 0;
}

void OpenZel(Device* device, uint32_t unit)
{
    static char names[ZEL_UNITS][8];
    static char nodes[ZEL_UNITS][16];
    snprintf(names[unit], sizeof names[unit], "zel%u", unit);
    snprintf(nodes[unit], sizeof nodes[unit], "/dev/spd%c", static_cast<char>('a' + unit));
    char char_node[16];
    snprintf(char_node, sizeof char_node, "/dev/spdr%c", static_cast<char>('a' + unit));
    memset(device, 0, sizeof *device);
    device->name = names[unit];
    device->node = nodes[unit];
    device->read = ZEL_DIRECT_READ;
    device->write = ZEL_DIRECT_WRITE;
    device->write_flag0 = ZEL_DIRECT_SEQ_WRITE;
    device->rmw = ZEL_DIRECT_RMW;
    device->fat_write = ZEL_FSMI_WRITE;
    device->command_write = ZEL_SDCMD_WRITE;
    device->bare.unit = unit;
    if (BareOpenZel(&device->bare, device->node, device->node, char_node) < 0 ||
        !OpenLibrary(&device->handle, device->node)) {
        Stop(device->node);
    }
}

void OpenMivo(Device* device, uint32_t unit)
{
    static const char* names[] = {"mivo0", "mivo1"};
    static const char* nodes[] = {"/dev/mivosdif0", "/dev/mivosdif1"};
    memset(device, 0, sizeof *device);
    device->name = names[unit];
    device->node = nodes[unit];
    device->read = MIVOSDIF_IOC_DIRECT_READ;
    device->write = MIVOSDIF_IOC_DIRECT_WRITE;
    device->write_flag0 = MIVOSDIF_IOC_DIRECT_WRITE_ALT;
    device->rmw = MIVOSDIF_IOC_DIRECT_RMW;
    device->fat_write = MIVOSDIF_IOC_FSMI_WRITE;
    device->command_write = MIVOSDIF_IOC_SDCMD_WRITE;
    device->bare.unit = unit;
    device->bare.is_mivo = true;
    if (BareOpenMivo(&device->bare, device->node) < 0 ||
        !OpenLibrary(&device->handle, device->node)) {
        Stop(device->node);
    }
}

void OpenRicoh(Device* device)
{
    memset(device, 0, sizeof *device);
    device->name = "ricoh";
    device->node = "/dev/sdcarda";
    if (BareOpenRicoh(&device->bare, device->node) < 0 ||
        !OpenLibrary(&device->handle, device->node)) {
        Stop(device->node);
    }
}

void Gone()
{
    Stop("a card was reported gone");
}

// With a callback the library asks before each operation whether the card is there.
void Watch(Device* device, bool is_watched)
{
    const CardEjectCallback callback = is_watched ? Gone : nullptr;
    device->bare.is_watched = is_watched;
    if (device->bare.is_mivo) {
        static_cast<MivoDevice*>(device->handle.priv)->eject_cb = callback;
    } else {
        static_cast<ZelDevice*>(device->handle.priv)->eject_cb = callback;
    }
}

const char* WatchName(bool is_watched)
{
    return is_watched ? "callback" : "no callback";
}

// --- what the machine itself costs ------------------------------------------------------

void Alone(const char* operation, uint32_t bytes, int64_t cost)
{
    Print({"baseline", "", operation, "", 1, bytes}, kNone, cost, kNone);
}

// The same sectors again, but not from the page cache.
int64_t ColdRead(int fd, uint32_t bytes)
{
    const auto forget = [fd] {
        if (posix_fadvise64(fd, 0, 0, POSIX_FADV_DONTNEED) != 0) {
            Stop("posix_fadvise");
        }
    };
    return CostAfter(forget, [=] {
        return pread64(fd, memory, bytes, int64_t{kFirst} * kSector) == static_cast<int>(bytes);
    });
}

int OpenDirect(const char* node)
{
    const int fd = open64(node, O_RDWR | O_DIRECT);
    if (fd < 0) {
        Stop(node);
    }
    return fd;
}

// What it costs to touch a page whose mapping is not in the processor: so many in turn that
// none is, less the same with a single page.
int64_t ReloadCost()
{
    constexpr uint32_t kPages = 256;
    constexpr uint32_t kPageSize = 4096;
    const auto touch = [](uint32_t step) {
        const volatile uint8_t* next = memory;
        for (uint32_t i = 0; i < kPages; i++, next += step) {
            *next;
        }
        return true;
    };
    return (Cost([=] { return touch(kPageSize); }) - Cost([=] { return touch(0); })) / kPages;
}

void Baselines(Device* zel)
{
    const int chr_fd = zel->bare.chr_fd;
    const int blk_fd = zel->bare.blk_fd;
    pthread_mutex_t* lock = &zel->bare.lock;
    Alone("getppid", 0, Cost([] { return getppid() >= 0; }));
    Alone("mutex lock and unlock", 0,
          Cost([=] { return pthread_mutex_lock(lock) == 0 && pthread_mutex_unlock(lock) == 0; }));
    Alone("ioctl that does nothing", 0,
          Cost([=] { return ioctl(chr_fd, ZEL_CHECK_WRITE_PROTECT, nullptr) == 0; }));
    Alone("poll without an event or a wait", 0, Cost([=] {
              struct pollfd node = {chr_fd, POLLIN | POLLOUT | POLLERR | POLLHUP, 0};
              return poll(&node, 1, 0) == 0;
          }));
    Alone("mapping register reloaded", 0, ReloadCost());
    const int direct_fd = OpenDirect(zel->node);
    for (const uint32_t bytes : {512u, 65536u}) {
        const auto read_from = [=](int fd) {
            return pread64(fd, memory, bytes, int64_t{kFirst} * kSector) == static_cast<int>(bytes);
        };
        Alone("pread with the page cache warm", bytes, Cost([=] { return read_from(blk_fd); }));
        Alone("pread with the page cache cold", bytes, ColdRead(blk_fd, bytes));
        Alone("pread with O_DIRECT", bytes, Cost([=] { return read_from(direct_fd); }));
    }
    close(direct_fd);
}

// --- life -----------------------------------------------------------------------------

void Life()
{
    static DrvInfo handle;
    static BareDevice bare;
    // The library keeps one record for each unit: this is the end of the devices before.
    const auto library = [](const char* node) {
        return [node] {
            const bool ok = OpenLibrary(&handle, node);
            DevExit(&handle);
            return ok;
        };
    };
    const char* operation = "DevDetect + DevInit + DevExit";
    Compare({"life", "zel0", operation, "", 1, 0}, library("/dev/spda"), [] {
        return BareOpenZel(&bare, "/dev/spda", "/dev/spda", "/dev/spdra") >= 0 &&
               BareCloseZel(&bare) == 0;
    });
    Compare({"life", "mivo0", operation, "", 1, 0}, library("/dev/mivosdif0"),
            [] { return BareOpenMivo(&bare, "/dev/mivosdif0") >= 0 && BareCloseMivo(&bare) == 0; });
    Compare({"life", "ricoh", operation, "", 1, 0}, library("/dev/sdcarda"),
            [] { return BareOpenRicoh(&bare, "/dev/sdcarda") >= 0 && BareCloseRicoh(&bare) == 0; });
}

// --- queries and requests ---------------------------------------------------------------

// Once per device: the registers come from the driver, afterwards from a copy.
template <class State>
void ForgetRegisters(State* state)
{
    free(state->reg_buf);
    free(state->secure_buf);
    free(state->speed_buf);
    state->reg_buf = nullptr;
    state->secure_buf = nullptr;
    state->speed_buf = nullptr;
}

template <class Library, class Bare>
void CompareFirst(const Row& row, Device* device, Library library, Bare bare)
{
    const auto forget = [=] {
        if (device->bare.is_mivo) {
            ForgetRegisters(static_cast<MivoDevice*>(device->handle.priv));
        } else {
            ForgetRegisters(static_cast<ZelDevice*>(device->handle.priv));
        }
    };
    const int64_t library_cost = CostAfter(forget, library);
    Print(row, library_cost, CostAfter(kNoPreparation, bare), kNone);
}

void Registers(Device* device, const char* variant)
{
    static CardInfo info;
    static CardSpeedInfo speed;
    static uint8_t status[CARD_SD_STATUS_SIZE];
    DrvInfo* handle = &device->handle;
    BareDevice* bare = &device->bare;
    const auto get_info = [=] { return CARD_Getinfo(handle, &info) == 0; };
    const auto get_speed = [=] { return CARD_GetSpeedInfo(handle, &speed) == 0; };
    const auto get_status = [=] { return CARD_SecureGetinfo(handle, status) == 0; };
    CompareFirst({"call", device->name, "CARD_Getinfo (first)", variant, 1, 0}, device, get_info,
                 [=] {
                     return (bare->is_mivo ? BareMivoRegisters(bare, &info)
                                           : BareZelRegisters(bare, &info)) == 0;
                 });
    CompareFirst(
        {"call", device->name, "CARD_GetSpeedInfo (first)", variant, 1, 0}, device, get_speed, [=] {
            return (bare->is_mivo ? BareMivoSpeed(bare, &speed) : BareZelSpeed(bare, &speed)) == 0;
        });
    CompareFirst({"call", device->name, "CARD_SecureGetinfo (first)", variant, 1, 0}, device,
                 get_status, [=] {
                     return (bare->is_mivo ? BareMivoStatusRegister(bare, status)
                                           : BareZelStatusRegister(bare, status)) == 0;
                 });
    static CardInfo known;
    static CardSpeedInfo known_speed;
    static uint8_t known_status[CARD_SD_STATUS_SIZE];
    Compare({"call", device->name, "CARD_Getinfo", variant, 1, 0}, get_info,
            [=] { return BareCopy(bare, &info, &known, sizeof info) == 0; });
    Compare({"call", device->name, "CARD_GetSpeedInfo", variant, 1, 0}, get_speed,
            [=] { return BareCopy(bare, &speed, &known_speed, sizeof speed) == 0; });
    Compare({"call", device->name, "CARD_SecureGetinfo", variant, 1, 0}, get_status,
            [=] { return BareCopy(bare, status, known_status, sizeof status) == 0; });
}

void CommonCalls(Device* device, const char* variant)
{
    static uint16_t word;
    DrvInfo* handle = &device->handle;
    BareDevice* bare = &device->bare;
    const bool is_mivo = bare->is_mivo;
    Compare(
        {"call", device->name, "CARD_Init", variant, 1, 0},
        [=] { return CARD_Init(handle, 0, nullptr) == 0; }, kNothing);
    Compare(
        {"call", device->name, "CARD_Getstatus", variant, 1, 0},
        [=] { return CARD_Getstatus(handle, &word) == 0; },
        [=] {
            word = CARD_STATUS_READY;
            return BareCheck(bare) == 0;
        });
    Compare(
        {"call", device->name, "CARD_GetR1Status", variant, 1, 0},
        [=] { return CARD_GetR1Status(handle) == 0; }, kNothing);
    Registers(device, variant);
    Compare(
        {"call", device->name, "CARD_GetCardSize", variant, 1, 0},
        [=] { return CARD_GetCardSize(handle) == kCardBytes / kSector; },
        [=] { return (is_mivo ? BareMivoSize(bare) : BareZelSize(bare)) == kCardBytes / kSector; });
    const uint32_t protection =
        is_mivo ? uint32_t{MIVOSDIF_IOC_GET_WRITE_PROTECT} : uint32_t{ZEL_CHECK_WRITE_PROTECT};
    Compare(
        {"call", device->name, "CARD_GetWriteProtect", variant, 1, 0},
        [=] { return CARD_GetWriteProtect(handle) == 0; },
        [=] { return BareLocked(bare, bare->chr_fd, protection, 0) == 0; });
    const uint32_t command = is_mivo ? uint32_t{MIVOSDIF_IOC_CARD_CMD2} : uint32_t{ZEL_CARD_CMD2};
    Compare(
        {"call", device->name, "CARD_Ioctl", variant, 1, 0},
        [=] { return CARD_Ioctl(handle, 2, 7) == 0; },
        [=] { return BareLocked(bare, bare->dev_fd, command, 7) >= 0; });
}

void ZelCalls(Device* device, const char* variant)
{
    static uint32_t record[9];
    DrvInfo* handle = &device->handle;
    BareDevice* bare = &device->bare;
    constexpr uint32_t kChannel = 1;
    const auto name_unit = [] {
        record[0] = kChannel;
        return static_cast<void*>(record);
    };
    auto* const channel_word = reinterpret_cast<void*>(uintptr_t{kChannel});
    Compare(
        {"call", device->name, "DevIoctl DEV_IOCTL_RT_40", variant, 1, 0},
        [=] { return DevIoctl(handle, DEV_IOCTL_RT_40, record) >= 0; },
        [=] { return BarePlain(bare, bare->rt_fd, RTCTRL_IOC_14, name_unit()) >= 0; });
    Compare(
        {"call", device->name, "DevIoctl DEV_IOCTL_RT_41", variant, 1, 0},
        [=] { return DevIoctl(handle, DEV_IOCTL_RT_41, record) >= 0; },
        [=] { return BarePlain(bare, bare->rt_fd, RTCTRL_IOC_18, name_unit()) >= 0; });
    Compare(
        {"call", device->name, "DevIoctl DEV_IOCTL_RT_42", variant, 1, 0},
        [=] { return DevIoctl(handle, DEV_IOCTL_RT_42, record) >= 0; },
        [=] { return BarePlain(bare, bare->rt_fd, RTCTRL_IOC_1B, channel_word) >= 0; });
    Compare(
        {"call", device->name, "DevIoctl DEV_IOCTL_RT_45", variant, 1, 0},
        [=] { return DevIoctl(handle, DEV_IOCTL_RT_45, nullptr) >= 0; },
        [=] { return BarePlain(bare, bare->rt_fd, RTCTRL_IOC_15, channel_word) >= 0; });
    Compare(
        {"call", device->name, "DevIoctl DEV_IOCTL_DEVICE_PARAMS", variant, 1, 0},
        [=] { return DevIoctl(handle, DEV_IOCTL_DEVICE_PARAMS, record) >= 0; },
        [=] { return BarePlain(bare, bare->dev_fd, ZEL_GET_DEVICE_PARAMS, record) >= 0; });
}

void MivoCalls(Device* device, const char* variant)
{
    static uint32_t record[9];
    DrvInfo* handle = &device->handle;
    BareDevice* bare = &device->bare;
    Compare(
        {"call", device->name, "DevIoctl DEV_IOCTL_DEVICE_PARAMS", variant, 1, 0},
        [=] { return DevIoctl(handle, DEV_IOCTL_DEVICE_PARAMS, record) == 0; },
        [=] {
            record[0] = 4;
            record[5] = 32768;
            record[6] = 32;
            record[7] = 8192;
            return BareCheck(bare) == 0;
        });
}

// These ask for no card, callback or not.
void RealTimeCalls(Device* device)
{
    DrvInfo* handle = &device->handle;
    const int fd = device->bare.rt_fd;
    Compare(
        {"call", device->name, "DevCheckRt", "", 1, 0}, [=] { return DevCheckRt(handle) >= 0; },
        [=] { return BareByte(fd, RTCTRL_IOC_CHECK_RT_STATUS) >= 0; });
    Compare(
        {"call", device->name, "DevCheckDelay", "", 1, 0},
        [=] { return DevCheckDelay(handle) >= 0; },
        [=] { return BareByte(fd, RTCTRL_IOC_CHECK_DELAY_STATUS) >= 0; });
    Compare(
        {"call", device->name, "DevRTOn4Wait", "", 1, 0}, [=] { return DevRTOn4Wait(handle) >= 0; },
        [=] { return BareByte(fd, RTCTRL_IOC_IS_RTON4WAIT) >= 0; });
    Compare(
        {"call", device->name, "DevLockRTOn + DevUnlockRTOn", "", 1, 0},
        [=] {
            DevLockRTOn(handle);
            DevUnlockRTOn(handle);
            return true;
        },
        [=] {
            return ioctl(fd, RTCTRL_IOC_LOCK_RTON, nullptr) == 0 &&
                   ioctl(fd, RTCTRL_IOC_UNLOCK_RTON, nullptr) == 0;
        });
}

void RicohCalls(Device* device)
{
    static uint16_t word;
    static CardInfo info;
    static CardInfo known;
    static uint8_t status[CARD_SD_STATUS_SIZE];
    DrvInfo* handle = &device->handle;
    BareDevice* bare = &device->bare;
    Compare(
        {"call", "ricoh", "CARD_Init", "", 1, 0},
        [=] { return CARD_Init(handle, 0, nullptr) == 0; }, kNothing);
    Compare(
        {"call", "ricoh", "CARD_Getstatus", "", 1, 0},
        [=] { return CARD_Getstatus(handle, &word) == 0; },
        [] {
            word = CARD_STATUS_READY;
            return true;
        });
    Compare(
        {"call", "ricoh", "CARD_GetR1Status", "", 1, 0},
        [=] { return CARD_GetR1Status(handle) == 0; }, kNothing);
    Compare(
        {"call", "ricoh", "CARD_Getinfo", "", 1, 0},
        [=] { return CARD_Getinfo(handle, &info) == 0; },
        [=] { return BareCopy(bare, &info, &known, sizeof info) == 0; });
    Compare(
        {"call", "ricoh", "CARD_SecureGetinfo", "", 1, 0},
        [=] { return CARD_SecureGetinfo(handle, status) == 0; },
        [=] { return BareCopy(bare, status, bare->sd_status, sizeof status) == 0; });
    Compare(
        {"call", "ricoh", "CARD_GetCardSize", "", 1, 0},
        [=] { return CARD_GetCardSize(handle) == kCardBytes / kSector; },
        [=] { return BareRicohSize(bare) == kCardBytes / kSector; });
    Compare(
        {"call", "ricoh", "CARD_GetWriteProtect", "", 1, 0},
        [=] { return CARD_GetWriteProtect(handle) == 0; }, kNothing);
    Compare(
        {"call", "ricoh", "CARD_Ioctl", "", 1, 0}, [=] { return CARD_Ioctl(handle, 2, 7) == 0; },
        kNothing);
}

void Formatting()
{
    static SdFormatParams params;
    Compare(
        {"call", "", "CalcSdParams", "32 GiB", 1, 0},
        [] { return CalcSdParams(67108864, &params) == 0; }, kNothing);
}

// --- plain transfers --------------------------------------------------------------------

void PlainTransfers(Device* device, const char* variant)
{
    DrvInfo* handle = &device->handle;
    BareDevice* bare = &device->bare;
    const int fd = bare->blk_fd;
    for (const uint32_t bytes : {512u, 4096u, 65536u, kMebibyte}) {
        const uint32_t sectors = bytes / kSector;
        const int moved = static_cast<int>(bytes);
        constexpr int64_t kPosition = int64_t{kFirst} * kSector;
        Compare(
            {"plain", device->name, "CARD_Read", variant, 1, bytes},
            [=] {
                CardIoResult result = {};
                CARD_Read(handle, memory, sectors, kFirst, 0, &result);
                return result.error == 0 && result.length == moved;
            },
            [=] { return BareRead(bare, memory, sectors, kFirst) == moved; },
            [=] { return pread64(fd, memory, bytes, kPosition) == moved; });
        Compare(
            {"plain", device->name, "CARD_Write", variant, 1, bytes},
            [=] {
                CardIoResult result = {};
                CARD_Write(handle, memory, sectors, kFirst, 0, &result);
                return result.error == 0 && result.length == moved;
            },
            [=] { return BareWrite(bare, memory, sectors, kFirst) == moved; },
            [=] { return pwrite64(fd, memory, bytes, kPosition) == moved; });
    }
}

// --- direct transfers -------------------------------------------------------------------

bool LibraryRead(Device* device, const Chunks& chunks)
{
    const uint32_t length = device->Length(chunks.Sectors());
    return DevDrctRead(&device->handle, kFirst, length, chunks.List()) ==
           static_cast<int32_t>(length);
}

bool LibraryWrite(Device* device, const Chunks& chunks, uint32_t flag)
{
    uint32_t retried = 0;
    const uint32_t length = device->Length(chunks.Sectors());
    return DevDrctWrite(&device->handle, kFirst, length, chunks.List(), flag, &retried) ==
           static_cast<int32_t>(length);
}

// A direct transfer keeps the block node's page cache in step, which costs something where
// that holds the same sectors. The loop fills it.
void EmptyPageCache(const Device* device)
{
    if (!device->bare.is_mivo &&
        posix_fadvise64(device->bare.blk_fd, 0, 0, POSIX_FADV_DONTNEED) != 0) {
        Stop("posix_fadvise");
    }
}

// The loop reads and writes the Zel slot's block node; the Mivo adaptor's node is both.
void DirectTransfer(const char* group, Device* device, const Chunks& chunks, const char* variant)
{
    BareDevice* bare = &device->bare;
    const uint32_t sectors = chunks.Sectors();
    const uint32_t count = chunks.List()->count;
    EmptyPageCache(device);
    Compare(
        {group, device->name, "DevDrctRead", variant, count, chunks.Bytes()},
        [&] { return LibraryRead(device, chunks); },
        [&] { return BareDirect(bare, device->read, kFirst, sectors, chunks.List()) == 0; },
        [&] { return LoopRead(bare->blk_fd, kFirst, chunks.List()) == 0; });
    EmptyPageCache(device);
    Compare(
        {group, device->name, "DevDrctWrite", variant, count, chunks.Bytes()},
        [&] { return LibraryWrite(device, chunks, 1); },
        [&] { return BareDirect(bare, device->write, kFirst, sectors, chunks.List()) == 0; },
        [&] { return LoopWrite(bare->blk_fd, kFirst, chunks.List()) == 0; });
}

void DirectTransfers(Device* device)
{
    for (uint32_t bytes = kSector; bytes <= kMebibyte; bytes *= 2) {
        DirectTransfer("size", device, Chunks(1, bytes, Layout::Contiguous), "contiguous");
    }
    for (const uint32_t count : {1u, 8u, 64u, kMostChunks}) {
        const uint32_t bytes = count == kMostChunks ? count * kSector : 65536;
        DirectTransfer("chunks", device, Chunks(count, bytes, Layout::Contiguous), "contiguous");
        DirectTransfer("chunks", device, Chunks(count, bytes, Layout::Scattered), "scattered");
    }
    // The growth with the chunks alone: as many bytes in each.
    for (const uint32_t count : {1u, 2u, 4u, 8u, 16u, 32u, 64u, 128u, 256u, 512u, 1024u, 2047u}) {
        const Chunks chunks(count, count * kSector, Layout::Scattered);
        DirectTransfer("growth", device, chunks, "scattered");
    }
    const Chunks chunks(1, 4096, Layout::Contiguous);
    Compare(
        {"size", device->name, "DevDrctWrite (flag 0)", "contiguous", 1, 4096},
        [&] { return LibraryWrite(device, chunks, 0); },
        [&] {
            return BareDirect(&device->bare, device->write_flag0, kFirst, chunks.Sectors(),
                              chunks.List()) == 0;
        });
}

// The library goes on from what the allocator left in the list's first word, so that the
// block has to be one that was never used: those that were are taken out of the way.
void TakeUsedBlocks(size_t length)
{
    static std::vector<void*> taken;
    void* block = nullptr;
    do {
        block = malloc(length);
        if (block == nullptr) {
            Stop("malloc");
        }
        taken.push_back(block);
    } while (*static_cast<volatile uint32_t*>(block) != 0);
}

void ArrayTransfers(Device* device)
{
    DrvInfo* handle = &device->handle;
    BareDevice* bare = &device->bare;
    for (const uint32_t count : {1u, 8u}) {
        constexpr uint32_t kPiece = 4096;
        const uint32_t bytes = count * kPiece;
        const uint32_t sectors = bytes / kSector;
        const uint32_t length = device->Length(sectors);
        MemoryArray list = {};
        list.count = static_cast<int32_t>(count);
        for (uint32_t i = 0; i < count; i++) {
            const auto address = reinterpret_cast<uintptr_t>(memory + size_t{2} * kPiece * i);
            list.addr[i] = static_cast<uint32_t>(address);
            list.len[i] = kPiece;
        }
        Compare(
            {"array", device->name, "DevDrctReadArray", "scattered", count, bytes},
            [&] {
                return DevDrctReadArray(handle, kFirst, length, &list) ==
                       static_cast<int32_t>(length);
            },
            [&] { return BareDirectArray(bare, device->read, kFirst, sectors, &list) == 0; });
        const auto take = [=] { TakeUsedBlocks(4 + 8 * size_t{count}); };
        const int64_t library = CostAfter(take, [&] {
            uint32_t retried = 0;
            return DevDrctWriteArray(handle, kFirst, length, &list, 1, &retried) ==
                   static_cast<int32_t>(length);
        });
        const int64_t bare_cost = CostAfter(take, [&] {
            return BareDirectArray(bare, device->write, kFirst, sectors, &list) == 0;
        });
        Print({"array", device->name, "DevDrctWriteArray", "scattered", count, bytes}, library,
              bare_cost, kNone);
    }
}

void ElementWrites(Device* device)
{
    DrvInfo* handle = &device->handle;
    BareDevice* bare = &device->bare;
    static BlockListEntry entries[kMostChunks];
    for (uint32_t i = 0; i < kMostChunks; i++) {
        const auto address = reinterpret_cast<uintptr_t>(memory + size_t{2} * i * kSector);
        entries[i] = {static_cast<uint32_t>(address), 1, kFirst + 2 * i, nullptr};
    }
    for (const uint32_t count : {1u, 8u, 64u, 512u, kMostChunks}) {
        for (uint32_t i = 0; i < count; i++) {
            entries[i].next = i + 1 < count ? &entries[i + 1] : nullptr;
        }
        BlockList list = {static_cast<int32_t>(count), entries};
        Compare(
            {"elements", device->name, "DevDrctRMW", "", count, count * kSector},
            [&] { return DevDrctRMW(handle, &list) == 0; },
            [&] { return BareElements(bare, device->rmw, &list) == 0; });
        Compare(
            {"elements", device->name, "DevFatWrite", "", count, count * kSector},
            [&] { return DevFatWrite(handle, &list) == 0; },
            [&] { return BareElements(bare, device->fat_write, &list) == 0; });
    }
}

void CommandWrites(Device* device)
{
    for (const uint32_t sectors : {1u, 8u, 128u}) {
        Compare(
            {"command", device->name, "DevSdCmdWrite", "", 1, sectors * kSector},
            [=] { return DevSdCmdWrite(&device->handle, memory, sectors, kFirst, 25, 0) == 0; },
            [=] {
                return BareCommand(&device->bare, device->command_write, memory, sectors, kFirst,
                                   25, 0) == 0;
            });
    }
}

// --- units --------------------------------------------------------------------------------

// The last of so many open units.
void Units(Device* zel, Device* mivo)
{
    const Chunks chunks(1, 4096, Layout::Contiguous);
    for (uint32_t unit = 0; unit < ZEL_UNITS; unit++) {
        if (unit > 0) {
            OpenZel(&zel[unit], unit);
        }
        DirectTransfer("units", &zel[unit], chunks, "contiguous");
    }
    for (uint32_t unit = 0; unit < MIVO_UNITS; unit++) {
        if (unit > 0) {
            OpenMivo(&mivo[unit], unit);
        }
        DirectTransfer("units", &mivo[unit], chunks, "contiguous");
    }
}

// --- bounds -------------------------------------------------------------------------------

// The least that a transfer can cost: the table is there already, under the same lock.
void AgainstReadyTable(Device* device, uint32_t bytes, bool is_watched)
{
    const Chunks chunks(1, bytes, Layout::Contiguous);
    BareDevice* bare = &device->bare;
    Watch(device, is_watched);
    const uint32_t table_bytes = BareTable(bare, chunks.List());
    const uint32_t sectors = chunks.Sectors();
    Compare(
        {"ready", device->name, "DevDrctRead", WatchName(is_watched), 1, bytes},
        [&] { return LibraryRead(device, chunks); },
        [&] { return BareReady(bare, device->read, kFirst, sectors, table_bytes) == 0; });
    Compare(
        {"ready", device->name, "DevDrctWrite", WatchName(is_watched), 1, bytes},
        [&] { return LibraryWrite(device, chunks, 1); },
        [&] { return BareReady(bare, device->write, kFirst, sectors, table_bytes) == 0; });
    Watch(device, false);
}

// Direct transfers of 64 KiB, and what else brings these data to memory or to the card.
void AgainstLoop(Device* zel, uint32_t count, Layout layout)
{
    const Chunks chunks(count, 65536, layout);
    const char* name = layout == Layout::Contiguous ? "contiguous" : "scattered";
    const int fd = zel->bare.blk_fd;
    const int direct_fd = OpenDirect(zel->node);
    const MemoryChunkArray* list = chunks.List();
    const auto row = [&](const char* operation, const char* how) {
        return Row{"loop", zel->name, operation, std::string(name) + " / " + how, count, 65536};
    };
    const int64_t read = Cost([&] { return LibraryRead(zel, chunks); });
    Print(row("DevDrctRead", "page cache warm"), read, kNone,
          Cost([&] { return LoopRead(fd, kFirst, list) == 0; }));
    Print(row("DevDrctRead", "page cache cold"), read, kNone,
          CostAfter([fd] { posix_fadvise64(fd, 0, 0, POSIX_FADV_DONTNEED); },
                    [&] { return LoopRead(fd, kFirst, list) == 0; }));
    Print(row("DevDrctRead", "O_DIRECT"), read, kNone,
          Cost([&] { return LoopRead(direct_fd, kFirst, list) == 0; }));
    const int64_t write = Cost([&] { return LibraryWrite(zel, chunks, 1); });
    Print(row("DevDrctWrite", "page cache only"), write, kNone,
          Cost([&] { return LoopWrite(fd, kFirst, list) == 0; }));
    Print(row("DevDrctWrite", "fsync"), write, kNone,
          Cost([&] { return LoopWrite(fd, kFirst, list) == 0 && fsync(fd) == 0; }));
    Print(row("DevDrctWrite", "O_DIRECT"), write, kNone,
          Cost([&] { return LoopWrite(direct_fd, kFirst, list) == 0; }));
    close(direct_fd);
}

void Bounds(Device* zel, Device* mivo)
{
    for (Device* device : {zel, mivo}) {
        for (const uint32_t bytes : {4096u, 65536u}) {
            AgainstReadyTable(device, bytes, false);
            AgainstReadyTable(device, bytes, true);
        }
    }
    AgainstLoop(zel, 1, Layout::Contiguous);
    AgainstLoop(zel, 8, Layout::Scattered);
    AgainstLoop(zel, 64, Layout::Scattered);
}

// Where the mapping registers suffice and where they do not.
void AroundBounds(Device* zel, Device* mivo)
{
    for (Device* device : {zel, mivo}) {
        for (const uint32_t bytes : {16384u, 32768u, 131072u, 262144u}) {
            AgainstReadyTable(device, bytes, false);
        }
    }
}

void Everything(Device* zel, Device* mivo, Device* ricoh)
{
    for (const bool is_watched : {false, true}) {
        const char* variant = WatchName(is_watched);
        Watch(zel, is_watched);
        Watch(mivo, is_watched);
        CommonCalls(zel, variant);
        ZelCalls(zel, variant);
        CommonCalls(mivo, variant);
        MivoCalls(mivo, variant);
        PlainTransfers(zel, variant);
        PlainTransfers(mivo, variant);
    }
    Watch(zel, false);
    Watch(mivo, false);
    RealTimeCalls(zel);
    RicohCalls(ricoh);
    Formatting();
    PlainTransfers(ricoh, "");
    for (Device* device : {zel, mivo}) {
        DirectTransfers(device);
        ArrayTransfers(device);
        ElementWrites(device);
        CommandWrites(device);
    }
}

}  // namespace

int main(int argc, char** argv)
{
    results = argc > 4 ? fopen(argv[1], "w") : nullptr;
    if (results == nullptr) {
        fprintf(stderr, "usage: board_bench FILE LINKED all|bounds progress|quiet\n");
        return 2;
    }
    linked = argv[2];
    const bool only_bounds = strcmp(argv[3], "bounds") == 0;
    has_progress = strcmp(argv[4], "progress") == 0;
    fprintf(
        results,
        "linked,group,device,operation,variant,chunks,bytes,library,bare,difference,ratio,loop\n");
    mlockall(MCL_CURRENT);
    prctl(PR_SET_TIMERSLACK, 1);
    FindTicks();
    InsertCards();
    static Device zel[ZEL_UNITS];
    static Device mivo[MIVO_UNITS];
    static Device ricoh;
    OpenZel(&zel[0], 0);
    OpenMivo(&mivo[0], 0);
    OpenRicoh(&ricoh);
    // First, so that they are the same figures with and without the others.
    Bounds(zel, mivo);
    if (!only_bounds) {
        AroundBounds(zel, mivo);
        Baselines(zel);
        Everything(zel, mivo, &ricoh);
        Units(zel, mivo);
        Life();
    }
    if (has_progress) {
        fprintf(stderr, "\r%76s\r", "");
    }
    return fclose(results) == 0 ? 0 : 1;
}
