// SPDX-License-Identifier: Apache-2.0
// Reading changed-block files and making the beginning of one.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "appliance/lib/corcbt.h"
#include "appliance/lib/registry.h"
#include "lib/file_io.h"
#include "lib/log.h"

namespace mirador {
namespace {

// Records of the list that are read at a time.
constexpr std::int64_t records_per_read = 4096;
constexpr auto record_size = static_cast<std::int64_t>(sizeof(cbt_extent_data_t));
constexpr auto header_size = static_cast<std::int64_t>(sizeof(cbt_file_header_t));

bool debugs() {
    return get_reg_settings()->cbt_debug_enabled;
}

// The bytes of a file or device.
errdesc_t* get_size(int fd, const std::string& path, std::int64_t* size) {
    struct stat st {};
    if (fstat(fd, &st) != 0)
        return errdesc_set_str(errno, path);
    if (!S_ISREG(st.st_mode) && !S_ISBLK(st.st_mode))
        return errdesc_set_fmt(EINVAL, "not a regular file: %s", path.c_str());
    *size = S_ISREG(st.st_mode) ? st.st_size : lseek(fd, 0, SEEK_END);
    return *size >= 0 ? nullptr : errdesc_set_str(errno, path);
}

template <std::size_t size>
bool is_terminated(const char (&text)[size]) {
    return std::memchr(text, '\0', size) != nullptr;
}

void log_header(const cbt_file_header_t& h) {
    ts_printf("corcbt_header magic number: %x\n", h.magic_header);
    ts_printf("corcbt_header version: %d\n", static_cast<int>(h.version));
    ts_printf("corcbt_header changeid: %.*s\n", static_cast<int>(sizeof h.changeid), h.changeid);
    ts_printf("corcbt_header device: %.*s\n", static_cast<int>(sizeof h.device), h.device);
    ts_printf("corcbt_header block_list_offset: %jd\n", static_cast<std::intmax_t>(h.block_list_offset));
    ts_printf("corcbt_header block_data_offset: %jd\n", static_cast<std::intmax_t>(h.block_data_offset));
    ts_printf("corcbt_header total_change_size: %jd\n", static_cast<std::intmax_t>(h.total_change_size));
}

// Why a header that came from outside cannot lead to a list in a file of `file_size` bytes; null when it can.
const char* header_fault(const cbt_file_header_t& h, std::int64_t file_size) {
    if (!is_terminated(h.changeid) || !is_terminated(h.device))
        return "a text without end";
    if (h.total_change_size == 0)
        return nullptr;
    if (h.total_change_size < 0)
        return "negative size of changed data";
    if (h.block_list_offset < header_size || h.block_data_offset < h.block_list_offset)
        return "offset of the changed block list";
    if (h.block_data_offset > file_size)
        return "the changed block list lies beyond the end of the file";
    const std::int64_t room = cbt_max_extents * record_size + cbt_sector_size;
    return h.block_data_offset - h.block_list_offset > room ? "too many changed blocks" : nullptr;
}

errdesc_t* read_header(int fd, const std::string& path, cbt_file_header_t* header) {
    std::int64_t size = 0;
    std::size_t done = 0;
    RETURN_IF_ERROR(get_size(fd, path, &size));
    *header = {};
    if (debugs())
        ts_printf("corcbt_header read_offset: %ld\n", 0L);
    if (errdesc_t* e = cor_pread(fd, header, sizeof *header, 0, &done))
        return errdesc_set_str(e->number, path);
    if (debugs())
        ts_printf("corcbt_header bytes_read: %ld\n", static_cast<long>(done));
    if (header->magic_header != cbt_file_header_t::magic_value)
        return errdesc_set_str(EINVAL, "invalid corcbt header magic number");
    if (debugs())
        log_header(*header);
    if (done < sizeof *header)
        return errdesc_set_fmt(EINVAL, "invalid corcbt header: it ends after %zu bytes", done);
    const char* const fault = header_fault(*header, size);
    return fault == nullptr ? nullptr : errdesc_set_fmt(EINVAL, "invalid corcbt header: %s", fault);
}

// Appends the records to the list, up to and with the last one; *ended tells whether that was met, *going whether what
// stands behind them belongs to the list as well.
void take_records(const cbt_extent_data_t* records, std::size_t count, cbt_extent_list_t* list, bool* ended,
                  bool* going) {
    for (std::size_t i = 0; i < count && *going; ++i) {
        const cbt_extent_data_t record = records[i];
        *ended = record.magic == cbt_extent_data_t::last_magic;
        *going = record.magic == cbt_extent_data_t::ordinary_magic;
        if (*ended || *going)
            list->push_back(record);
    }
}

void log_list(const cbt_extent_list_t& list) {
    for (std::size_t i = 0; i < list.size(); ++i) {
        const cbt_extent_data_t record = list[i];
        ts_printf("cbt_item->start / length: %jd / %jd\n", static_cast<std::intmax_t>(record.start),
                  static_cast<std::intmax_t>(record.length));
        ts_printf("cbt_item->next : %u\n", i + 1 < list.size() ? static_cast<unsigned>(i + 1) : 0U);
    }
}

errdesc_t* read_list(int fd, const std::string& path, const cbt_file_header_t& header, cbt_extent_list_t* list) {
    const std::int64_t count = (header.block_data_offset - header.block_list_offset) / record_size;
    if (debugs())
        ts_printf("corcbt_header block_list_num: %jd\n", static_cast<std::intmax_t>(count));
    std::vector<cbt_extent_data_t> records;
    bool ended = false;
    bool going = true;
    for (std::int64_t first = 0; first < count && going; first += records_per_read) {
        records.resize(static_cast<std::size_t>(std::min(count - first, records_per_read)));
        const std::size_t wanted = records.size() * sizeof records[0];
        std::size_t done = 0;
        if (errdesc_t* e = cor_pread(fd, records.data(), wanted, header.block_list_offset + first * record_size, &done))
            return errdesc_set_str(e->number, path);
        going = done == wanted;
        if (going)
            take_records(records.data(), records.size(), list, &ended, &going);
    }
    if (debugs())
        log_list(*list);
    return ended ? nullptr : errdesc_set_str(EINVAL, "invalid corcbt changed block list");
}

template <std::size_t size>
bool put_text(const std::string& text, char (&field)[size]) {
    if (text.size() >= size || text.find('\0') != std::string::npos)
        return false;
    text.copy(field, text.size());
    return true;
}

// Appends the records with the magic words of a file.
void put_list(const cbt_extent_list_t& list, std::string* bytes) {
    for (std::size_t i = 0; i < list.size(); ++i) {
        cbt_extent_data_t record = list[i];
        record.magic = i + 1 < list.size() ? cbt_extent_data_t::ordinary_magic : cbt_extent_data_t::last_magic;
        bytes->append(reinterpret_cast<const char*>(&record), sizeof record);
    }
}

}  // namespace

errdesc_t* build_corcbt_header(const cbt_extent_list_t& list, const std::string& changeid, const std::string& device,
                               std::int64_t flat_file_size, cbt_file_header_t* header, std::string* bytes) {
    if (flat_file_size < 0 || flat_file_size % cbt_sector_size != 0)
        return errdesc_set_fmt(EINVAL, "a disk of %jd bytes", static_cast<std::intmax_t>(flat_file_size));
    RETURN_IF_ERROR(cbt_check_extents(list, flat_file_size));
    if (static_cast<std::int64_t>(list.size()) > cbt_max_extents)
        return errdesc_set_fmt(EINVAL, "too many changed blocks: %zu", list.size());
    *header = {};
    if (!put_text(changeid, header->changeid) || !put_text(device, header->device))
        return errdesc_set_fmt(EINVAL, "too long for a corcbt header: %s, %s", changeid.c_str(), device.c_str());
    const std::int64_t end = header_size + static_cast<std::int64_t>(list.size()) * record_size;
    header->magic_header = cbt_file_header_t::magic_value;
    header->version = cbt_file_header_t::current_version;
    header->block_list_offset = header_size;
    header->block_data_offset = (end + cbt_sector_size - 1) / cbt_sector_size * cbt_sector_size;
    for (const cbt_extent_data_t& extent : list)
        header->total_change_size += extent.length;
    header->corcbt_file_size = header->block_data_offset + header->total_change_size;
    header->flat_file_size = flat_file_size;
    header->magic_block_list = cbt_file_header_t::list_magic_value;
    bytes->assign(reinterpret_cast<const char*>(header), sizeof *header);
    bytes->reserve(static_cast<std::size_t>(header->block_data_offset));
    put_list(list, bytes);
    bytes->resize(static_cast<std::size_t>(header->block_data_offset));
    return nullptr;
}

errdesc_t* read_corcbt_header_fd(int fd, const std::string& path, cbt_file_header_t* header, cbt_extent_list_t* list) {
    cbt_list_free(list);
    RETURN_IF_ERROR(read_header(fd, path, header));
    return header->total_change_size == 0 ? nullptr : read_list(fd, path, *header, list);
}

errdesc_t* read_corcbt_header(const std::string& path, cbt_file_header_t* header, cbt_extent_list_t* list) {
    if (debugs())
        ts_printf("opening corcbt_file: %s\n", path.c_str());
    // Somebody else's path: a pipe would wait.
    const unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!fd)
        return errdesc_set_str(errno, path);
    return read_corcbt_header_fd(fd.get(), path, header, list);
}

}  // namespace mirador
