// SPDX-License-Identifier: Apache-2.0
#include "lib/walker.h"

#include <ftw.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <deque>
#include <memory>
#include <system_error>

#include "lib/cor_assert.h"
#include "lib/startup.h"
#include "lib/thread_annotations.h"
#include "lib/tool_paths.h"

namespace mirador {
namespace {

constexpr int walk_descriptors = 10;

// One walk. Its thread owns it; queued entries point to it, and it waits for them.
struct walk_t {
    walker_start_desc_t desc;
    std::uint64_t hits = 0;
    std::uint64_t misses = 0;
    std::uint64_t refcount = 0;  // accepted entries that the message thread has not handled; under walker_t's mutex
};

struct node_t {
    walk_t* walk;
    walker_cb_desc_t entry;
};

// The queue between walks and the message thread.
class walker_t {
  public:
    walker_t() : message_thread_([this] { handle_messages(); }) {}
    ~walker_t() { stop(); }
    walker_t(const walker_t&) = delete;
    walker_t& operator=(const walker_t&) = delete;

    // Queues an accepted entry; false when walks are to stop.
    bool post(walk_t* walk, walker_cb_desc_t entry) EXCLUDES(mutex_) {
        const mutex_lock_t lock(mutex_);
        if (quit_)
            return false;
        ++walk->refcount;
        queue_.push_back({walk, std::move(entry)});
        cond_.notify_all();
        return true;
    }

    bool stopped() EXCLUDES(mutex_) {
        const mutex_lock_t lock(mutex_);
        return quit_;
    }

    void wait_for_callbacks(const walk_t& walk) EXCLUDES(mutex_) {
        const mutex_lock_t lock(mutex_);
        while (walk.refcount > 0)
            cond_.wait(mutex_);
    }

    void stop() EXCLUDES(mutex_) {
        {
            const mutex_lock_t lock(mutex_);
            quit_ = true;
            for (const node_t& node : queue_)
                --node.walk->refcount;
            queue_.clear();
            cond_.notify_all();
        }
        if (message_thread_.joinable())
            message_thread_.join();
    }

  private:
    void handle_messages() EXCLUDES(mutex_) {
        block_signals();
        while (std::optional<node_t> node = next()) {
            node->walk->desc.callback(node->entry);
            const mutex_lock_t lock(mutex_);
            --node->walk->refcount;
            cond_.notify_all();
        }
    }

    std::optional<node_t> next() EXCLUDES(mutex_) {
        const mutex_lock_t lock(mutex_);
        while (queue_.empty() && !quit_)
            cond_.wait(mutex_);
        if (quit_)
            return std::nullopt;
        std::optional<node_t> node = std::move(queue_.front());
        queue_.pop_front();
        return node;
    }

    mutex_t mutex_;
    std::condition_variable_any cond_;
    std::deque<node_t> queue_ GUARDED_BY(mutex_);
    bool quit_ GUARDED_BY(mutex_) = false;
    std::thread message_thread_;  // last: it uses all the others
};

mutex_t _current_mutex;
std::shared_ptr<walker_t> _current GUARDED_BY(_current_mutex);

std::shared_ptr<walker_t> current_walker() EXCLUDES(_current_mutex) {
    const mutex_lock_t lock(_current_mutex);
    if (!_current)
        _current = std::make_shared<walker_t>();
    return _current;
}

// nftw passes nothing of the caller's on.
struct walking_t {
    walker_t* walker = nullptr;
    walk_t* walk = nullptr;
};
thread_local walking_t _walking;

int visit(const char* path, const struct stat* sb, int type, FTW*) {
    walk_t& walk = *_walking.walk;
    walker_cb_desc_t entry{walk.desc.base, path, {}, walk.hits, walk.misses};
    if (type != FTW_NS)
        entry.sb = *sb;
    if (walk.desc.filter && !walk.desc.filter(entry)) {
        ++walk.misses;
        return _walking.walker->stopped() ? 1 : 0;
    }
    entry.hits = ++walk.hits;
    return _walking.walker->post(&walk, std::move(entry)) ? 0 : 1;
}

void run_walk(const std::shared_ptr<walker_t>& walker, walker_start_desc_t desc) {
    block_signals();
    walk_t walk{std::move(desc)};
    _walking = {walker.get(), &walk};
    static_cast<void>(nftw(walk.desc.base.c_str(), visit, walk_descriptors, FTW_PHYS | FTW_MOUNT));
    walker->wait_for_callbacks(walk);
}

}  // namespace

errdesc_t* walker_start(walker_start_desc_t desc, std::thread* thread) {
    cor_assert(!desc.base.empty());
    cor_assert(desc.callback != nullptr);
    cor_assert(!thread->joinable());
    try {
        *thread = std::thread(run_walk, current_walker(), desc);
    } catch (const std::system_error& e) {
        return errdesc_set_str(e.code().value(), desc.base);
    }
    return nullptr;
}

void walker_wait(std::vector<std::thread>* threads) {
    cor_assert_text(threads->size() <= walker_max_threads, "wthrs_sz <= 64");
    for (std::thread& thread : *threads)
        thread.join();
    threads->clear();
}

void walker_end() {
    std::shared_ptr<walker_t> ending;
    {
        const mutex_lock_t lock(_current_mutex);
        ending.swap(_current);
    }
    if (ending)
        ending->stop();
}

mount_table_ptr walker_start_mount_points() {
    return mount_table_ptr(setmntent(tool_paths().mount_table.c_str(), "re"));
}

std::optional<std::string> walker_get_mount_points(std::FILE* stream) {
    mntent entry{};
    std::vector<char> buffer(std::size_t{64} << 10);
    while (getmntent_r(stream, &entry, buffer.data(), static_cast<int>(buffer.size())) != nullptr)
        if (!walker_ignore_mnt_type(entry))
            return entry.mnt_dir;
    return std::nullopt;
}

void walker_end_mount_points(mount_table_ptr stream) {
    stream.reset();
}

bool walker_ignore_mnt_type(const mntent& entry) {
    constexpr std::array types = {"adfs",  "affs",  "autofs", "devpts",      "iso9660",    "proc",   "ramfs",
                                  "romfs", "tmpfs", "sysfs",  "binfmt_misc", "rpc_pipefs", "vmblock"};
    const std::size_t length = std::strlen(entry.mnt_type);
    for (const char* type : types)
        if (std::strncmp(type, entry.mnt_type, length) == 0)
            return true;
    return false;
}

}  // namespace mirador
