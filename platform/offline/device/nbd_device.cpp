/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/nbd_device.h"

#include <libnbd.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <chrono>
#include <optional>
#include <utility>

#include "platform/offline/base/guarded.h"
#include "platform/offline/device/device_error.h"
#include "platform/offline/device/disk_file.h"

namespace offline {
namespace {

constexpr size_t atOnce = 32;                                          /* requests under way */
constexpr uint64_t largestRequest = 1 << 20, unsaidLargest = 32 << 20; /* bytes */
constexpr uint32_t largestUnit = 64 << 10;   /* bytes; no server may ask for larger ones, says the protocol */
constexpr uint64_t statusReach = 256 << 20;  /* bytes that are asked about at once */
constexpr size_t mostExtents = 1 << 16;      /* of an answer to that, which are kept */
constexpr std::chrono::seconds patience(30); /* for an address to answer */
constexpr std::chrono::seconds farewell(5);  /* for it to close the connection */

enum class Command { read, write, zero, flush };

/* A request that fits the server: its bytes and their place, in whole units. */
struct Request {
    uint64_t offset = 0;
    uint8_t* bytes = nullptr; /* of a write they are only read */
    uint64_t count = 0;
};

/* Requests under way, and the first refusal of theirs that nobody was told of yet. */
struct Batch {
    size_t underWay = 0;
    DeviceError error = 0;
};

int requestDone(void* batch, int* error) {
    auto& of = *static_cast<Batch*>(batch);
    --of.underWay;
    if (*error != 0 && of.error == 0) of.error = *error;
    return 1; /* nobody asks for it again */
}

/* A write that goes on by itself. */
struct Writing {
    uint64_t offset, end; /* bytes */
    ByteVector bytes;     /* none for zeros */
};

struct Extent {
    uint64_t end = 0; /* it begins where the one before ends */
    bool hole = false;
};

struct NbdDevice final : BlockDevice {
    std::string called;
    std::unique_ptr<QemuNbd> server; /* null for an address */
    nbd_handle* handle = nullptr;    /* null when it has gone */
    uint64_t bytes = 0, requestSize = 0;
    uint32_t unit = 1; /* bytes; what the server takes whole multiples of */
    bool onlyRead = true, mayBeWritten = false, tellsHoles = false, zeroes = false;
    DeviceError flushRefusal = 0;
    uint64_t extentsFrom = 0;
    std::vector<Extent> extents;  /* from there on, as they are now */
    std::vector<Writing> writing; /* some of them may be done */
    Batch written;                /* of those */

    ~NbdDevice() override;
    NTSTATUS refuseNonsense(const std::string& what, Problem& problem) const;
    NTSTATUS agree(DiskAccess access, Problem& problem);

    const std::string& name() const override { return called; }
    uint64_t size() const override { return bytes; }
    uint32_t sectorSize() const override { return unit >= 4096 ? 4096 : 512; }
    bool readOnly() const override { return onlyRead; }
    bool writable() const override { return mayBeWritten; }
    std::string reason(DeviceError error) const override;
    size_t readsAtOnce() const override { return atOnce; }

    DeviceError read(uint64_t offset, std::span<uint8_t> into) override;
    DeviceError readAll(std::span<const DeviceRead> reads) override;
    DeviceError write(uint64_t offset, Bytes from) override;
    DeviceError flush() override;
    uint64_t holeAt(uint64_t offset, uint64_t count) override;
    DeviceError zero(uint64_t offset, uint64_t count) override;

private:
    bool alive() const { return handle != nullptr; }
    bool inUnits(uint64_t offset, uint64_t count) const { return offset % unit == 0 && count % unit == 0; }
    void noticeEnd();
    void wait(const Batch& batch);
    bool issue(Command command, const Request& request, Batch& batch);
    DeviceError perform(Command command, std::span<const Request> requests);
    void addRequests(const DeviceRead& read, std::vector<Request>& requests) const;
    DeviceError readUnits(std::span<const DeviceRead> reads);
    void waitForWrites();
    DeviceError endWriting();
    DeviceError goOnWriting(Command command, uint64_t offset, uint64_t count, Bytes from);
    DeviceError writeParts(uint64_t offset, Bytes from);
    DeviceError writeZeros(uint64_t offset, uint64_t count);
    void askExtents(uint64_t offset);
};

/* While the state is to be waited for; false when the time is over or the connection failed, and over tells
 * which. */
template <class Going>
bool pollWhile(nbd_handle* handle, Going going, std::chrono::seconds longest, bool& over) {
    const auto end = std::chrono::steady_clock::now() + longest;
    over = false;
    while (going()) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        over = left.count() <= 0;
        if (over || nbd_poll(handle, static_cast<int>(left.count())) < 0) return false;
    }
    return true;
}

/* A server that keeps the connection must not keep us. */
void disconnect(nbd_handle* handle) {
    bool over = false;
    const auto open = [&] { return nbd_aio_is_dead(handle) == 0 && nbd_aio_is_closed(handle) == 0; };
    if (nbd_aio_disconnect(handle, 0) == 0) pollWhile(handle, open, farewell, over);
}

NbdDevice::~NbdDevice() {
    if (alive()) disconnect(handle);
    nbd_close(handle); /* and the server, which this destroys next, has nobody left to serve */
}

std::string NbdDevice::reason(DeviceError error) const {
    if (error != deviceGone) return deviceErrorText(error);
    if (!server) return "its NBD server has gone";
    const std::string said = server->words();
    return said.empty() ? "its qemu-nbd has ended" : "its qemu-nbd has ended: " + said;
}

/* ---- Requests ---- */

/* Lets go of a connection that has ended. */
void NbdDevice::noticeEnd() {
    if (!alive() || (nbd_aio_is_dead(handle) == 0 && nbd_aio_is_closed(handle) == 0)) return;
    nbd_close(std::exchange(handle, nullptr));
}

/* Until one more is done, or the connection has ended. */
void NbdDevice::wait(const Batch& batch) {
    if (batch.underWay > 0 && nbd_poll(handle, -1) < 0) nbd_close(std::exchange(handle, nullptr));
    noticeEnd();
}

bool NbdDevice::issue(Command command, const Request& request, Batch& batch) {
    const nbd_completion_callback done = {requestDone, &batch, nullptr};
    int64_t cookie = -1;
    ++batch.underWay;
    switch (command) {
        case Command::read:
            cookie = nbd_aio_pread(handle, request.bytes, request.count, request.offset, done, 0);
            break;
        case Command::write:
            cookie = nbd_aio_pwrite(handle, request.bytes, request.count, request.offset, done, 0);
            break;
        case Command::zero:
            cookie = nbd_aio_zero(handle, request.count, request.offset, done, 0);
            break;
        case Command::flush:
            cookie = nbd_aio_flush(handle, done, 0);
            break;
    }
    if (cookie >= 0) return true;
    --batch.underWay;
    if (batch.error == 0) batch.error = nbd_get_errno() == 0 ? EIO : nbd_get_errno();
    return false;
}

/* All of them, or up to the first refusal; none is under way any more when it returns. */
DeviceError NbdDevice::perform(Command command, std::span<const Request> requests) {
    if (!alive()) return deviceGone;
    Batch batch;
    for (const Request& request : requests) {
        while (alive() && batch.underWay >= atOnce) wait(batch);
        if (batch.error != 0 || !issue(command, request, batch)) break;
    }
    while (alive() && batch.underWay > 0) wait(batch);
    noticeEnd();
    return alive() ? batch.error : deviceGone;
}

void NbdDevice::addRequests(const DeviceRead& read, std::vector<Request>& requests) const {
    for (uint64_t done = 0; done < read.bytes.size(); done += requests.back().count) {
        requests.push_back({read.offset + done, read.bytes.data() + done,
                            std::min<uint64_t>(read.bytes.size() - done, requestSize)});
    }
}

/* ---- Reading ---- */

DeviceError NbdDevice::read(uint64_t offset, std::span<uint8_t> into) {
    const DeviceRead one{offset, into};
    return readAll({&one, 1});
}

/* What is not in whole units is read in such, aside. */
DeviceError NbdDevice::readAll(std::span<const DeviceRead> reads) {
    return guardedOr<DeviceError>(ENOMEM, [&]() -> DeviceError {
        waitForWrites();
        if (alive() && written.error != 0) return written.error;
        std::vector<DeviceRead> whole(reads.begin(), reads.end());
        std::vector<ByteVector> aside;
        for (DeviceRead& one : whole) {
            if (inUnits(one.offset, one.bytes.size())) continue;
            const uint64_t start = one.offset - one.offset % unit;
            const uint64_t end = (one.offset + one.bytes.size() + unit - 1) / unit * unit;
            aside.emplace_back(static_cast<size_t>(end - start));
            one = {start, aside.back()};
        }
        const DeviceError error = readUnits(whole);
        for (size_t i = 0; error == 0 && i < reads.size(); ++i) {
            if (whole[i].bytes.data() == reads[i].bytes.data()) continue;
            const auto begin = whole[i].bytes.begin() + static_cast<ptrdiff_t>(reads[i].offset % unit);
            std::copy_n(begin, reads[i].bytes.size(), reads[i].bytes.begin());
        }
        return error;
    });
}

DeviceError NbdDevice::readUnits(std::span<const DeviceRead> reads) {
    std::vector<Request> requests;
    for (const DeviceRead& one : reads) addRequests(one, requests);
    return perform(Command::read, requests);
}

/* ---- Writing ---- */

void NbdDevice::waitForWrites() {
    while (alive() && written.underWay > 0) wait(written);
    noticeEnd();
    writing.clear();
}

/* None is under way any more; the first refusal that was not told yet, for a write or a flush to tell. */
DeviceError NbdDevice::endWriting() {
    waitForWrites();
    return alive() ? std::exchange(written.error, 0) : deviceGone;
}

/* Begins it, when there is room among those under way and none of them writes to the same place. */
DeviceError NbdDevice::goOnWriting(Command command, uint64_t offset, uint64_t count, Bytes from) {
    const uint64_t end = offset + count;
    const auto meets = [&](const Writing& other) { return offset < other.end && other.offset < end; };
    const bool full = writing.size() >= atOnce;
    if (full || written.error != 0 || !alive() || std::any_of(writing.begin(), writing.end(), meets)) {
        if (const DeviceError error = endWriting()) return error;
    }
    extents.clear();
    writing.reserve(atOnce);
    writing.push_back({offset, end, ByteVector(from.begin(), from.end())});
    issue(command, {offset, writing.back().bytes.data(), count}, written);
    return 0; /* a refusal is told by the next */
}

/* What lies around it in its units stays. */
DeviceError NbdDevice::writeParts(uint64_t offset, Bytes from) {
    const uint64_t start = offset - offset % unit, end = (offset + from.size() + unit - 1) / unit * unit;
    ByteVector whole(static_cast<size_t>(end - start));
    DeviceError error = endWriting();
    if (error == 0) error = read(start, whole);
    if (error != 0) return error;
    std::copy(from.begin(), from.end(), whole.begin() + static_cast<ptrdiff_t>(offset - start));
    return write(start, whole);
}

DeviceError NbdDevice::write(uint64_t offset, Bytes from) {
    if (onlyRead) return EROFS;
    return guardedOr<DeviceError>(ENOMEM, [&]() -> DeviceError {
        if (!inUnits(offset, from.size())) return writeParts(offset, from);
        DeviceError error = 0;
        while (error == 0 && !from.empty()) {
            const Bytes part = from.first(std::min<uint64_t>(from.size(), requestSize));
            error = goOnWriting(Command::write, offset, part.size(), part);
            offset += part.size();
            from = from.subspan(part.size());
        }
        return error;
    });
}

DeviceError NbdDevice::writeZeros(uint64_t offset, uint64_t count) {
    const ByteVector zeros(static_cast<size_t>(std::min(count, requestSize)));
    DeviceError error = 0;
    while (error == 0 && count > 0) {
        const Bytes part = Bytes(zeros).first(std::min<uint64_t>(count, zeros.size()));
        error = write(offset, part);
        offset += part.size();
        count -= part.size();
    }
    return error;
}

DeviceError NbdDevice::zero(uint64_t offset, uint64_t count) {
    if (onlyRead) return EROFS;
    return guardedOr<DeviceError>(ENOMEM, [&]() -> DeviceError {
        if (!zeroes || !inUnits(offset, count)) return writeZeros(offset, count);
        DeviceError error = 0;
        while (error == 0 && count > 0) {
            const uint64_t part = std::min(count, requestSize);
            error = goOnWriting(Command::zero, offset, part, {});
            offset += part;
            count -= part;
        }
        return error;
    });
}

DeviceError NbdDevice::flush() {
    const Request all;
    if (onlyRead || flushRefusal != 0) return flushRefusal;
    if (const DeviceError error = endWriting()) return error;
    flushRefusal = perform(Command::flush, {&all, 1});
    return flushRefusal;
}

/* ---- Holes ---- */

int extentsTold(void* device, const char*, uint64_t offset, uint32_t* entries, size_t count, int*) {
    auto& of = *static_cast<NbdDevice*>(device);
    constexpr uint32_t hole = LIBNBD_STATE_HOLE | LIBNBD_STATE_ZERO;
    of.extents.clear();
    of.extentsFrom = offset;
    return guardedOr(-1, [&] {
        for (size_t i = 0; i + 1 < std::min(count, 2 * mostExtents); i += 2) {
            offset += entries[i];
            of.extents.push_back({offset, (entries[i + 1] & hole) == hole});
        }
        return 0;
    });
}

void NbdDevice::askExtents(uint64_t offset) {
    extents.clear();
    waitForWrites();
    if (!alive()) return;
    Batch batch;
    const nbd_extent_callback told = {extentsTold, this, nullptr};
    const nbd_completion_callback done = {requestDone, &batch, nullptr};
    const uint64_t start = offset - offset % unit;
    ++batch.underWay;
    if (nbd_aio_block_status(handle, std::min(statusReach, bytes - start), start, told, done, 0) < 0) return;
    while (alive() && batch.underWay > 0) wait(batch);
    if (batch.error != 0) extents.clear();
}

uint64_t NbdDevice::holeAt(uint64_t offset, uint64_t count) {
    if (!tellsHoles) return 0;
    if (extents.empty() || offset < extentsFrom || offset >= extents.back().end) askExtents(offset);
    const uint64_t end = offset + count;
    auto extent = std::upper_bound(extents.begin(), extents.end(), offset,
                                   [](uint64_t at, const Extent& one) { return at < one.end; });
    uint64_t reached = offset;
    for (; extent != extents.end() && extent->hole && reached < end; ++extent) reached = extent->end;
    return std::min(reached, end) - offset;
}

/* ---- What the server says of the disk ---- */

NTSTATUS NbdDevice::refuseNonsense(const std::string& what, Problem& problem) const {
    return refuse(problem, STATUS_IO_DEVICE_ERROR,
                  called + ": its server can't be right: " + what + "; use another NBD server");
}

/* The one place where that is checked. */
NTSTATUS NbdDevice::agree(DiskAccess access, Problem& problem) {
    const int64_t size = nbd_get_size(handle), least = nbd_get_block_size(handle, LIBNBD_SIZE_MINIMUM),
                  most = nbd_get_block_size(handle, LIBNBD_SIZE_MAXIMUM);
    if (size < 0 || least < 0 || most < 0) return refuseNonsense("it names no size", problem);
    bytes = static_cast<uint64_t>(size);
    if (bytes == 0) {
        return refuse(problem, STATUS_UNRECOGNIZED_VOLUME,
                      called + ": it is empty; name a disk that holds a Windows installation");
    }
    const uint64_t unsaidUnit = bytes % 512 == 0 ? 512 : 1;
    const uint64_t asked = least == 0 ? unsaidUnit : static_cast<uint64_t>(least);
    if (asked > largestUnit || !std::has_single_bit(asked) || bytes % asked != 0) {
        return refuseNonsense(
            "blocks of " + std::to_string(asked) + " bytes on a disk of " + std::to_string(bytes), problem);
    }
    unit = static_cast<uint32_t>(asked);
    requestSize = std::min(most == 0 ? unsaidLargest : static_cast<uint64_t>(most), largestRequest);
    if (requestSize < unit) {
        return refuseNonsense("requests of " + std::to_string(requestSize) + " bytes at most", problem);
    }
    requestSize -= requestSize % unit;
    zeroes = nbd_can_zero(handle) == 1;
    tellsHoles = nbd_can_meta_context(handle, LIBNBD_CONTEXT_BASE_ALLOCATION) == 1;
    const bool forChanges = access == DiskAccess::readWrite || access == DiskAccess::trial;
    const bool served = server != nullptr && access != DiskAccess::readWrite; /* read-only, as we asked */
    const bool protectedFromWrites = !served && nbd_is_read_only(handle) != 0;
    const bool flushes = served || nbd_can_flush(handle) == 1;
    mayBeWritten = mayBeWritten && !protectedFromWrites && flushes;
    onlyRead = access != DiskAccess::readWrite || protectedFromWrites;
    if (!forChanges) return STATUS_SUCCESS;
    if (protectedFromWrites) return refuseOnlyReadable(called, problem);
    if (flushes) return STATUS_SUCCESS;
    return refuse(problem, STATUS_MEDIA_WRITE_PROTECTED,
                  called +
                      ": its NBD server can't flush what is written to it, so that nothing would be safe "
                      "there; use one that can");
}

/* ---- Connecting ---- */

std::string libraryWords() {
    const char* const said = nbd_get_error();
    return said == nullptr ? "no reason is known" : said;
}

NTSTATUS makeHandle(NbdDevice& device, Problem& problem) {
    device.handle = nbd_create();
    if (device.handle != nullptr &&
        nbd_add_meta_context(device.handle, LIBNBD_CONTEXT_BASE_ALLOCATION) == 0) {
        return STATUS_SUCCESS;
    }
    return refuse(problem, STATUS_NO_MEMORY, device.called + ": " + libraryWords());
}

/* As pollWhile. */
bool connectInTime(nbd_handle* handle, bool& over) {
    const auto connecting = [&] { return nbd_aio_is_connecting(handle) == 1; };
    return pollWhile(handle, connecting, patience, over) && nbd_aio_is_ready(handle) == 1;
}

} /* namespace */

bool nbdBuiltIn() {
    return true;
}

NTSTATUS nbdDeviceConnect(const std::string& address, DiskAccess access, BlockDevicePtr& device,
                          Problem& problem) {
    return guardedRefusing(problem, [&]() -> NTSTATUS {
        auto opened = std::make_unique<NbdDevice>();
        opened->called = address;
        opened->mayBeWritten = true;
        NTSTATUS status = makeHandle(*opened, problem);
        if (status < 0) return status;
        bool over = false;
        nbd_set_uri_allow_local_file(opened->handle, true);
        if (nbd_aio_connect_uri(opened->handle, address.c_str()) < 0 ||
            !connectInTime(opened->handle, over)) {
            if (over) {
                return refuse(problem, STATUS_SHARING_VIOLATION,
                              address +
                                  ": its NBD server does not answer; end whatever else is using it, or "
                                  "start it anew");
            }
            return refuse(problem, STATUS_NO_SUCH_FILE,
                          address + ": it can't be reached (" + libraryWords() + "); check the address");
        }
        status = opened->agree(access, problem);
        if (status >= 0) device = std::move(opened);
        return status;
    });
}

NTSTATUS nbdDeviceServed(const std::string& name, std::unique_ptr<QemuNbd> server, DiskAccess access,
                         bool writable, BlockDevicePtr& device, Problem& problem) {
    return guardedRefusing(problem, [&]() -> NTSTATUS {
        auto opened = std::make_unique<NbdDevice>();
        opened->called = name;
        opened->mayBeWritten = writable;
        opened->server = std::move(server);
        NTSTATUS status = makeHandle(*opened, problem);
        if (status < 0) return status;
        if (nbd_connect_socket(opened->handle, std::exchange(opened->server->socket, -1)) != 0) {
            const std::string said = libraryWords();
            nbd_close(std::exchange(opened->handle, nullptr));
            return opened->server->refuseDisk(name, said, problem);
        }
        status = opened->agree(access, problem);
        if (status >= 0) device = std::move(opened);
        return status;
    });
}

} /* namespace offline */
