// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/stats_thr.h"

#include <gmock/gmock.h>
#include <json-c/json.h>

#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "appliance/exporter/shadow_fixture.h"
#include "appliance/exporter/vm_proxy_api.h"
#include "appliance/exporter/vm_proxy_read.h"
#include "controller/lib/controller_url.h"
#include "controller/lib/json_fields.h"
#include "lib/clock.h"
#include "tests/support/fake_controller.h"

namespace mirador {
namespace {

using testing::HasSubstr;

// One posted array as text: "/a vmdk_bytes_read=8192 ...; /b ...". All values must be strings.
std::string as_text(const std::string& body) {
    const json_ptr array = json_parse_text(body);
    std::string text;
    for (std::size_t i = 0; i < json_object_array_length(array.get()); i++) {
        json_object* const object = json_object_array_get_idx(array.get(), i);
        text += text.empty() ? "" : "; ";
        json_object_object_foreach(object, key, value) {
            EXPECT_TRUE(json_object_is_type(value, json_type_string)) << key;
            const std::string name = key;
            text += name == "vmdk_path" ? "" : " " + name + "=";
            text += json_object_get_string(value);
        }
    }
    return text;
}

std::string counters(const std::string& path, const std::string& n, std::optional<int> time, int read, int skipped,
                     int delta_read, int delta_skipped) {
    const std::string last = time ? cor_format(" vmdk_last_read_time%s=%d", n.c_str(), *time) : "";
    return path + last +
           cor_format(" vmdk_bytes_read%s=%d vmdk_bytes_skipped%s=%d delta_bytes_read%s=%d delta_bytes_skipped%s=%d",
                      n.c_str(), read, n.c_str(), skipped, n.c_str(), delta_read, n.c_str(), delta_skipped);
}

// Holds every post of the thread until the test has looked at it and says what becomes of it.
class post_gate_t {
  public:
    struct post_t {
        std::string text;
        std::time_t time;
    };

    void hold(const http_request_t& request, http_connection_t& connection) {
        const mutex_lock_t lock(mutex_);
        held_ = post_t{as_text(request.body), clock_now()};
        cond_.notify_all();
        while (held_ && !open_)
            cond_.wait(mutex_);
        held_.reset();
        connection.reply(status_, "{}");
    }
    // Waits for the next post, which stays held.
    post_t next() {
        const mutex_lock_t lock(mutex_);
        while (!held_)
            cond_.wait(mutex_);
        return *held_;
    }
    void answer(int status) {
        const mutex_lock_t lock(mutex_);
        status_ = status;
        held_.reset();
        cond_.notify_all();
    }
    // From now on all posts succeed.
    void open() {
        const mutex_lock_t lock(mutex_);
        open_ = true;
        status_ = 200;
        cond_.notify_all();
    }

  private:
    mutex_t mutex_;
    std::condition_variable_any cond_;
    std::optional<post_t> held_ GUARDED_BY(mutex_);
    int status_ GUARDED_BY(mutex_) = 200;
    bool open_ GUARDED_BY(mutex_) = false;
};

class stats_thr : public shadow_fixture_t {
  protected:
    stats_thr() {
        fake_.answer("vmstats", [gate = shared_](const http_request_t& request, http_connection_t& connection) {
            gate->hold(request, connection);
        });
        clock_.emplace(start_time);
    }
    ~stats_thr() override {
        gate_.open();
        stop();
        get_reg_settings()->cbt_debug_enabled = false;
    }

    static constexpr int start_time = 1000;

    void stop() {
        clock_.reset();  // the thread must not see its patience run out
        stats_thr_stop();
    }
    // What the next post says. It succeeds, or fails with a status.
    std::string post(int status = 200) {
        const std::string text = gate_.next().text;
        gate_.answer(status);
        return text;
    }

    fake_controller_t& fake_ = fake_controller_t::fresh(controller_get_url);
    // The server's thread may still leave it when the reply has been read and the test is over.
    const std::shared_ptr<post_gate_t> shared_ = std::make_shared<post_gate_t>();
    post_gate_t& gate_ = *shared_;
    std::optional<manual_clock_t> clock_;
};

TEST_F(stats_thr, PostsWhatWasReadEveryFifteenSeconds) {
    // Counted before the thread looks: the order of the two is the test's.
    stats_thr_lock();
    stats_thr_start();
    for (int i = 0; i < 2; i++)
        stats_thr_update_stats("/a", 4096, 512, false);
    stats_thr_unlock();
    EXPECT_EQ(gate_.next().text, counters("/a", "", start_time, 8192, 1024, 4096, 512));
    const std::time_t first = gate_.next().time;
    gate_.answer(200);
    for (int i = 1; i < 4; i++) {
        EXPECT_EQ(gate_.next().text, counters("/a", "", start_time, 8192, 1024, 0, 0));
        EXPECT_EQ(gate_.next().time, first + 15 * i);
        gate_.answer(200);
    }
}

TEST_F(stats_thr, FailedPostIsMadeUpForAndReadsBesideAPostAreKept) {
    stats_thr_lock();
    stats_thr_start();
    for (int i = 0; i < 2; i++)
        stats_thr_update_stats("/a", 100, 0, false);
    stats_thr_unlock();
    EXPECT_EQ(gate_.next().text, counters("/a", "", start_time, 200, 0, 100, 0));
    stats_thr_update_stats("/a", 7, 1, false);
    gate_.answer(500);
    EXPECT_THAT(gate_.next().text, HasSubstr("delta_bytes_read=107 delta_bytes_skipped=1"));
    stats_thr_update_stats("/a", 20, 0, false);
    gate_.answer(200);
    EXPECT_THAT(gate_.next().text, HasSubstr("vmdk_bytes_read=227 vmdk_bytes_skipped=1 delta_bytes_read=20 "));
    gate_.answer(200);
    EXPECT_THAT(post(), HasSubstr("delta_bytes_read=0 "));
}

TEST_F(stats_thr, ClosedFileIsPostedUntilThatSucceedsAndThenForgotten) {
    stats_thr_lock();
    stats_thr_start();
    for (const char* path : {"/a", "/b", "/b"})
        stats_thr_update_stats(path, 100, 0, false);
    stats_thr_close_stats("/b", true);  // the other stream
    stats_thr_close_stats("/b", false);
    stats_thr_close_stats("/unknown", false);
    stats_thr_unlock();
    const std::string a = counters("/a", "", start_time, 100, 0, 0, 0);
    const std::string b = counters("/b", "", std::nullopt, 200, 0, 100, 0);
    EXPECT_EQ(post(500), a + "; " + b);
    EXPECT_EQ(post(), a + "; " + b);
    EXPECT_EQ(post(), a);
    EXPECT_EQ(gate_.next().text, a);
    const auto now = static_cast<int>(clock_now());
    stats_thr_update_stats("/b", 5, 0, false);  // opened again: a new count
    gate_.answer(200);
    EXPECT_EQ(post(), a + "; " + counters("/b", "", now, 5, 0, 0, 0));
}

TEST_F(stats_thr, FiguresGoAtOnceInOrderAndAgainAfterAFailure) {
    clock_.reset();  // nothing but the figures themselves wakes the thread
    stats_thr_start();
    cbt_file_header_t header{};
    header.flat_file_size = 1 << 20;
    header.block_data_offset = 4096;
    header.total_change_size = 65536;
    header.corcbt_file_size = 100000;
    stats_thr_update_flat_size("/held", 1);
    EXPECT_EQ(gate_.next().text, "/held vmdk_flat_file_size=1");
    stats_thr_update_flat_size("/a", 5);
    stats_thr_update_cbt("/a", &header);
    stats_thr_update_flat_size("/b", 0x100000000);
    stats_thr_update_flat_size("/a", 6);  // in the place of the older one
    const std::string cbt =
        "/a vmdk_flat_file_size=1048576 cbt_overhead_bytes=4096 cbt_changed_bytes=65536 cbt_pad_bytes=30368";
    gate_.answer(200);
    EXPECT_EQ(post(500), cbt);  // the rest waits for the next pass
    EXPECT_EQ(gate_.next().text, "/b vmdk_flat_file_size=4294967296");
    stats_thr_update_flat_size("/c", 7);
    gate_.answer(200);
    EXPECT_EQ(post(), "/a vmdk_flat_file_size=6");
    EXPECT_EQ(post(), cbt);
    EXPECT_EQ(post(), "/c vmdk_flat_file_size=7");
}

TEST_F(stats_thr, NeitherReadersNorOpensWaitForTheController) {
    stats_thr_start();
    stats_thr_update_stats("/a", 1, 0, false);
    (void)gate_.next();  // held until the end
    std::vector<std::thread> readers;
    for (int i = 0; i < 4; i++)
        readers.emplace_back([i] {
            for (int n = 0; n < 1000; n++)
                stats_thr_update_stats(i % 2 == 0 ? "/a" : "/b", 1, 0, i > 1);
        });
    for (std::thread& reader : readers)
        reader.join();
    stats_thr_update_flat_size("/a", 5);
    stats_thr_close_stats("/a", true);
    gate_.answer(200);
    EXPECT_EQ(post(), "/a vmdk_flat_file_size=5");
    const std::string text = post();
    for (const char* wanted : {"/a vmdk_last_read_time=", "vmdk_bytes_read=1001 ", "/b vmdk_last_read_time=",
                               "vmdk_bytes_read=1000 ", "/a vmdk_bytes_read2=1000 ", "/b vmdk_last_read_time2="})
        EXPECT_THAT(text, HasSubstr(wanted));
}

TEST_F(stats_thr, StopPostsWhatIsLeftOnce) {
    clock_.reset();
    testing::internal::CaptureStdout();
    stats_thr_start();
    stats_thr_update_stats("/a", 1, 0, false);
    stats_thr_update_flat_size("/a", 5);
    EXPECT_THAT(gate_.next().text, HasSubstr("/a"));
    stats_thr_update_stats("/a", 10, 0, false);
    stats_thr_close_stats("/a", false);
    gate_.open();
    stats_thr_stop();
    const std::string last = as_text(fake_.received().back().body);
    EXPECT_THAT(last, HasSubstr("/a vmdk_bytes_read=11 vmdk_bytes_skipped=0 delta_bytes_read=10 "));
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_THAT(log, testing::ContainsRegex("stats_thr_start\n(.*\n)*.*stats_thr: stopping\n.*stats_thr_stop\n$"));
    EXPECT_THAT(log, testing::Not(HasSubstr("updating vmstats")));

    const std::size_t count = fake_.received().size();
    stats_thr_update_stats("/a", 1, 0, false);  // starts nothing
    stats_thr_update_flat_size("/a", 5);
    stats_thr_stop();
    stats_thr_start();
    stats_thr_stop();
    EXPECT_EQ(fake_.received().size(), count) << "what is counted without a thread is not kept either";
}

TEST_F(stats_thr, StopDoesNotWaitForItsThreadToComeUp) {
    clock_.reset();
    for (int i = 0; i < 200; i++) {
        stats_thr_start();
        stats_thr_stop();
    }
    EXPECT_THAT(fake_.received(), testing::IsEmpty());
}

}  // namespace
}  // namespace mirador
