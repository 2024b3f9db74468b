// SPDX-License-Identifier: Apache-2.0
// HTTP and HTTPS requests: a thin wrapper around one libcurl easy handle.
//
// A handle's life: httpclnt_open, then any number of option calls and requests, httpclnt_reset in between to start
// anew, httpclnt_close. Options stay in force for all later requests of the handle until httpclnt_reset, and so do the
// marks of a request's kind (no body after a HEAD, the range of a ranged GET): reset before a request of another kind.
//
// Any thread may use a handle; its mutex makes it one operation at a time, for the operation's whole run. Without the
// lock run httpclnt_close, httpclnt_no_cache, httpclnt_set_content_type_in_header and the two response functions: they
// are for the thread that owns the handle, between requests.
//
// Errors: libcurl's own result code as number for what libcurl refuses ("Cannot set <OPTION>: <libcurl's text>") or
// cannot do ("Cannot perform operations on <url>: <libcurl's text>": 6 no such host, 7 no connection, 18 the reply ends
// early, 28 time-out, 42 interrupted, 52 no reply at all …); errno for files; the number that belongs to an HTTP status
// ("HTTP error status <status>: <url>: <reply header>"): EAGAIN for 404, 500 and 503, 127 for 401, EIO for all others
// but 0 and 200 to 299. Redirects are not followed. Certificates are not checked: the service is this machine's own.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "lib/errdesc.h"
#include "lib/file_io.h"
#include "lib/secret.h"
#include "lib/thread_annotations.h"

struct curl_slist;

namespace mirador {

// The error number of status 401.
inline constexpr errnum_t httpclnt_unauthorized = 127;

// libcurl's easy handle and its list of strings.
struct curl_closer_t {
    void operator()(void* curl) const;
};
struct curl_list_closer_t {
    void operator()(curl_slist* list) const;
};
using curl_ptr = std::unique_ptr<void, curl_closer_t>;
using curl_list_ptr = std::unique_ptr<curl_slist, curl_list_closer_t>;

// One client connection. Fields are this module's own.
struct http_handle_t {
    mutex_t mutex;  // held for each operation

    // Guarded by `mutex`.
    std::optional<std::string> file_name GUARDED_BY(mutex);  // where bodies go; none: into the response
    file_ptr fh GUARDED_BY(mutex);                           // the open output file, during and after a request
    std::optional<std::string> user_name GUARDED_BY(mutex);
    std::optional<secret_t> password GUARDED_BY(mutex);
    bool authenticated GUARDED_BY(mutex) = false;  // libcurl has the credentials; it gets them once
    int retry GUARDED_BY(mutex) = 0;

    // The owning thread's, between requests: additional request header lines; null: none.
    curl_list_ptr http_headers;

    // Last, so that it goes first: libcurl may look at what the others hold until it is closed.
    curl_ptr curl_hndl GUARDED_BY(mutex);
};
using http_handle_ptr = std::unique_ptr<http_handle_t>;

// What a request brought, filled also when it failed. A response that is used again without httpclnt_response_init
// keeps what it holds and gets the new texts behind it.
struct http_response_t {
    long status = 0;                  // the HTTP status; 0: there was no reply
    std::int64_t content_length = 0;  // bytes of body that the reply announced, -1 when it did not; set on success only
    std::string header;               // all lines as received, their line ends included
    std::string body;                 // empty when a file was the target
};

// Makes a handle; the first one of the process initialises libcurl.
[[nodiscard]] errdesc_t* httpclnt_open(http_handle_ptr* hndl);

// Ends the connection, writes the cookie jar, flushes and closes the output file, frees everything. Sets *hndl to null.
void httpclnt_close(http_handle_ptr* hndl);

// Requests. `url` is used as it stands: escape its variable parts (httpclnt_escape_str).

// Header only; asks for the connection to be closed behind it.
[[nodiscard]] errdesc_t* httpclnt_head(http_handle_t& hndl, const std::string& url, http_response_t* resp);
[[nodiscard]] errdesc_t* httpclnt_get(http_handle_t& hndl, const std::string& url, http_response_t* resp);

// The bytes `offset` to `offset` + `length` - 1.
[[nodiscard]] errdesc_t* httpclnt_get_range(http_handle_t& hndl, const std::string& url, std::uint64_t offset,
                                            std::uint32_t length, http_response_t* resp);

// Sends `body` up to its first zero byte.
[[nodiscard]] errdesc_t* httpclnt_post(http_handle_t& hndl, const std::string& url, const std::string& body,
                                       http_response_t* resp);

// PUTs a file of the size that it has at the call. Errors: errno with "Cannot access file <path> for upload", "Cannot
// open file <path> for upload".
[[nodiscard]] errdesc_t* httpclnt_upload(http_handle_t& hndl, const std::string& url, const std::string& path,
                                         http_response_t* resp);

// Options.

// Reads cookies from `path` and writes them there (httpclnt_flush, httpclnt_close). With `session`, cookies of an
// earlier session are not loaded.
[[nodiscard]] errdesc_t* httpclnt_enable_cookies(http_handle_t& hndl, const std::string& path, bool session);

// Credentials for the requests to come; always succeeds. Those that libcurl got with an earlier request stay in force.
errdesc_t* httpclnt_user_password(http_handle_t& hndl, const std::string& user, const secret_t& password);

// Replace the whole list of additional header lines: by the lines that keep caches out; by `line` alone, "Content-Type:
// text/plain" say (empty: EINVAL "Cannot set Content-Type to NULL").
[[nodiscard]] errdesc_t* httpclnt_no_cache(http_handle_t& hndl);
[[nodiscard]] errdesc_t* httpclnt_set_content_type_in_header(http_handle_t& hndl, const std::string& line);

// The file that bodies go to from the next request on, each request writing it anew; none: into the response. It is
// complete after httpclnt_flush, httpclnt_reset or httpclnt_close. A request's error: errno with "Cannot open file
// <path> for writing". Always succeeds itself.
errdesc_t* httpclnt_output_file(http_handle_t& hndl, const std::optional<std::string>& path);

// The time limit of a whole request; 0: none. A value that libcurl refuses (negative, or too big for its milliseconds)
// leaves the handle locked for good: callers never pass one.
[[nodiscard]] errdesc_t* httpclnt_set_timeout(http_handle_t& hndl, long seconds);

// Ends requests with 42 while *flag is not zero, within about a second, whether bytes flow or not; any thread may set
// it. The flag must outlive the requests. Null: no interruption.
[[nodiscard]] errdesc_t* httpclnt_interrupt(http_handle_t& hndl, const std::atomic<int>* flag);

// Completes what is on its way to files: closes the output file, which is forgotten, and writes the cookie jar.
[[nodiscard]] errdesc_t* httpclnt_flush(http_handle_t& hndl);

// Back to a new handle's state, but for cookies, open connections and the credentials, which are stored and, once
// handed to libcurl, not handed to it again. Always succeeds.
errdesc_t* httpclnt_reset(http_handle_t& hndl);

// `text` as it may stand in a URL: all but letters, digits and "-._~" as %XX. Error: ENOMEM. httpclnt_free empties it.
[[nodiscard]] errdesc_t* httpclnt_escape_str(http_handle_t& hndl, const std::string& text, std::string* escaped);
void httpclnt_free(std::string* escaped);

// Both clear all fields.
void httpclnt_response_init(http_response_t* resp);
void httpclnt_response_free(http_response_t* resp);

}  // namespace mirador
