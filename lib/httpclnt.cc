// SPDX-License-Identifier: Apache-2.0
#include "lib/httpclnt.h"

#include <curl/curl.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <initializer_list>
#include <mutex>
#include <new>
#include <type_traits>

#include "lib/cor_assert.h"
#include "lib/cor_string.h"

namespace mirador {
namespace {

constexpr long status_none = 0;
constexpr long status_ok_first = 200;
constexpr long status_ok_last = 299;

errdesc_t* option_error(CURLcode code, const std::string& name) {
    return code == CURLE_OK ? nullptr
                            : errdesc_set_fmt(code, "Cannot set %s: %s", name.c_str(), curl_easy_strerror(code));
}

// libcurl reads an option's value as a long or as a pointer, unchecked.
template <typename value_t>
errdesc_t* set_option(const curl_ptr& curl, CURLoption option, value_t value, const std::string& name) {
    static_assert(std::is_same_v<value_t, long> || std::is_pointer_v<value_t> || std::is_null_pointer_v<value_t>);
    return option_error(curl_easy_setopt(curl.get(), option, value), name);
}

// Its error names the option.
#define SET_OPTION(curl, option, value) set_option(curl, option, value, #option)

errdesc_t* info_error(CURLcode code) {
    return code == CURLE_OK ? nullptr : errdesc_set_fmt(code, "Cannot get curl info: %s", curl_easy_strerror(code));
}

errdesc_t* perform_error(errnum_t number, const std::string& url, CURLcode code) {
    return errdesc_set_fmt(number, "Cannot perform operations on %s: %s", url.c_str(), curl_easy_strerror(code));
}

// One text of a reply on its way into memory.
struct text_sink_t {
    std::string* text;
    bool dropped = false;  // memory ran out: what came was thrown away
};

// libcurl's write callback. It accepts everything, so that a reply is always read to its end.
std::size_t append_text(char* data, std::size_t size, std::size_t count, void* user) {
    auto* sink = static_cast<text_sink_t*>(user);
    try {
        if (!sink->dropped)
            sink->text->append(data, size * count);
    } catch (const std::bad_alloc&) {
        sink->dropped = true;
        std::string().swap(*sink->text);
    }
    return size * count;
}

// libcurl's progress callback: not 0 aborts the transfer.
int is_interrupted(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return static_cast<const std::atomic<int>*>(user)->load() != 0 ? 1 : 0;
}

errnum_t errnum_of_status(long status) {
    switch (status) {
        case 404:
        case 500:
        case 503:
            return EAGAIN;
        case 401:
            return httpclnt_unauthorized;
        default:
            return EIO;
    }
}

errdesc_t* check_status(const std::string& url, const http_response_t& resp) {
    if (resp.status == status_none || (resp.status >= status_ok_first && resp.status <= status_ok_last))
        return nullptr;
    return errdesc_set_fmt(errnum_of_status(resp.status), "HTTP error status %ld: %s: %s", resp.status, url.c_str(),
                           resp.header.c_str());
}

// Whether the header has its empty line. Interim replies have headers of their own before it, and a body in chunks may
// have more lines behind it.
bool has_header_end(const std::string& header) {
    const std::size_t before_status = header.rfind("\nHTTP/");
    const std::size_t last = before_status == std::string::npos ? 0 : before_status + 1;
    return header.find("\n\r\n", last) != std::string::npos || header.find("\n\n", last) != std::string::npos;
}

// libcurl takes a reply that ends within its header for a whole one without a body.
errdesc_t* check_header_end(const std::string& url, const http_response_t& resp) {
    if (resp.status == status_none || has_header_end(resp.header))
        return nullptr;
    return perform_error(CURLE_PARTIAL_FILE, url, CURLE_PARTIAL_FILE);
}

errdesc_t* set_connection_options(const http_handle_t& hndl, const std::string& url) REQUIRES(hndl.mutex) {
    RETURN_IF_ERROR(SET_OPTION(hndl.curl_hndl, CURLOPT_URL, url.c_str()));
    // The service is this machine's own: a proxy named in the environment is none of its ways.
    RETURN_IF_ERROR(SET_OPTION(hndl.curl_hndl, CURLOPT_NOPROXY, "*"));
    // Time-outs without signals: many threads make requests.
    RETURN_IF_ERROR(SET_OPTION(hndl.curl_hndl, CURLOPT_NOSIGNAL, 1L));
    RETURN_IF_ERROR(SET_OPTION(hndl.curl_hndl, CURLOPT_SSL_VERIFYPEER, 0L));
    RETURN_IF_ERROR(SET_OPTION(hndl.curl_hndl, CURLOPT_SSL_VERIFYHOST, 0L));
    if (hndl.http_headers != nullptr)
        RETURN_IF_ERROR(SET_OPTION(hndl.curl_hndl, CURLOPT_HTTPHEADER, hndl.http_headers.get()));
    return nullptr;
}

errdesc_t* set_body_target(http_handle_t& hndl, text_sink_t* body) REQUIRES(hndl.mutex) {
    if (!hndl.file_name) {
        RETURN_IF_ERROR(SET_OPTION(hndl.curl_hndl, CURLOPT_WRITEFUNCTION, &append_text));
        return SET_OPTION(hndl.curl_hndl, CURLOPT_WRITEDATA, body);
    }
    hndl.fh.reset();  // writes what an earlier request left in its buffer
    hndl.fh.reset(std::fopen(hndl.file_name->c_str(), "we"));
    if (hndl.fh == nullptr)
        return errdesc_set_fmt(errno, "Cannot open file %s for writing", hndl.file_name->c_str());
    RETURN_IF_ERROR(SET_OPTION(hndl.curl_hndl, CURLOPT_WRITEFUNCTION, nullptr));
    return SET_OPTION(hndl.curl_hndl, CURLOPT_WRITEDATA, hndl.fh.get());
}

errdesc_t* set_header_target(const http_handle_t& hndl, text_sink_t* header) REQUIRES(hndl.mutex) {
    RETURN_IF_ERROR(SET_OPTION(hndl.curl_hndl, CURLOPT_HEADERFUNCTION, &append_text));
    return set_option(hndl.curl_hndl, CURLOPT_HEADERDATA, header, "CURLOPT_WRITEHEADER");
}

errdesc_t* set_credentials(http_handle_t& hndl) REQUIRES(hndl.mutex) {
    if (hndl.authenticated || !hndl.user_name || !hndl.password)
        return nullptr;
    RETURN_IF_ERROR(
        set_option(hndl.curl_hndl, CURLOPT_USERNAME, hndl.user_name->c_str(), "CURLOPT_USERNAME " + *hndl.user_name));
    RETURN_IF_ERROR(set_option(hndl.curl_hndl, CURLOPT_PASSWORD, hndl.password->reveal().c_str(),
                               cor_format("CURLOPT_PASSWORD %s", secret_t::shown())));
    hndl.authenticated = true;
    return nullptr;
}

errdesc_t* perform(const http_handle_t& hndl, const std::string& url, http_response_t* resp) REQUIRES(hndl.mutex) {
    const CURLcode code = curl_easy_perform(hndl.curl_hndl.get());
    // A denied login is not the last word: the status, read next, decides.
    if (code == CURLE_LOGIN_DENIED)
        (void)perform_error(EAGAIN, url, code);
    else if (code != CURLE_OK)
        return perform_error(code, url, code);
    return info_error(curl_easy_getinfo(hndl.curl_hndl.get(), CURLINFO_RESPONSE_CODE, &resp->status));
}

errdesc_t* read_content_length(const http_handle_t& hndl, http_response_t* resp) REQUIRES(hndl.mutex) {
    curl_off_t length = 0;
    RETURN_IF_ERROR(info_error(curl_easy_getinfo(hndl.curl_hndl.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length)));
    resp->content_length = length;
    return nullptr;
}

// What every request does once the options of its kind are set.
errdesc_t* request(http_handle_t& hndl, const std::string& url, http_response_t* resp) REQUIRES(hndl.mutex) {
    text_sink_t header{&resp->header};
    text_sink_t body{&resp->body};
    RETURN_IF_ERROR(set_connection_options(hndl, url));
    RETURN_IF_ERROR(set_body_target(hndl, &body));
    RETURN_IF_ERROR(set_header_target(hndl, &header));
    RETURN_IF_ERROR(set_credentials(hndl));
    RETURN_IF_ERROR(perform(hndl, url, resp));
    // What was thrown away must not pass for an empty reply.
    if (header.dropped || body.dropped)
        return perform_error(ENOMEM, url, CURLE_OUT_OF_MEMORY);
    RETURN_IF_ERROR(check_header_end(url, *resp));
    RETURN_IF_ERROR(check_status(url, *resp));
    return read_content_length(hndl, resp);
}

errdesc_t* replace_headers(http_handle_t& hndl, std::initializer_list<const char*> lines) {
    curl_list_ptr list;
    for (const char* line : lines) {
        curl_slist* const longer = curl_slist_append(list.get(), line);
        if (longer == nullptr)
            return errdesc_set(ENOMEM);
        (void)list.release();
        list.reset(longer);
    }
    hndl.http_headers = std::move(list);
    return nullptr;
}

void init_libcurl() {
    static std::once_flag once;
    std::call_once(once, [] {
        cor_assert_text(curl_global_init(CURL_GLOBAL_SSL | CURL_GLOBAL_WIN32) == 0,
                        "curl_global_init(((1<<0)|(1<<1))) == 0");
    });
}

void close_output_file(http_handle_t& hndl) REQUIRES(hndl.mutex) {
    hndl.file_name.reset();
    hndl.fh.reset();
}

}  // namespace

void curl_closer_t::operator()(void* curl) const {
    curl_easy_cleanup(curl);
}

void curl_list_closer_t::operator()(curl_slist* list) const {
    curl_slist_free_all(list);
}

errdesc_t* httpclnt_open(http_handle_ptr* hndl) {
    cor_assert(hndl != nullptr);
    init_libcurl();
    auto opened = std::make_unique<http_handle_t>();
    const mutex_lock_t lock(opened->mutex);
    opened->curl_hndl.reset(curl_easy_init());
    RETURN_IF_ERROR(SET_OPTION(opened->curl_hndl, CURLOPT_COOKIESESSION, 0L));
    *hndl = std::move(opened);
    return nullptr;
}

void httpclnt_close(http_handle_ptr* hndl) {
    cor_assert(hndl != nullptr);
    cor_assert(*hndl != nullptr);
    hndl->reset();
}

errdesc_t* httpclnt_head(http_handle_t& hndl, const std::string& url, http_response_t* resp) {
    const mutex_lock_t lock(hndl.mutex);
    RETURN_IF_ERROR(SET_OPTION(hndl.curl_hndl, CURLOPT_NOBODY, 1L));
    RETURN_IF_ERROR(SET_OPTION(hndl.curl_hndl, CURLOPT_FORBID_REUSE, 1L));
    return request(hndl, url, resp);
}

errdesc_t* httpclnt_get(http_handle_t& hndl, const std::string& url, http_response_t* resp) {
    const mutex_lock_t lock(hndl.mutex);
    RETURN_IF_ERROR(SET_OPTION(hndl.curl_hndl, CURLOPT_HTTPGET, 1L));
    return request(hndl, url, resp);
}

errdesc_t* httpclnt_get_range(http_handle_t& hndl, const std::string& url, std::uint64_t offset, std::uint32_t length,
                              http_response_t* resp) {
    const std::uintmax_t first = offset;
    const std::string range = cor_format("%ju-%ju", first, first + length - 1);
    const mutex_lock_t lock(hndl.mutex);
    RETURN_IF_ERROR(SET_OPTION(hndl.curl_hndl, CURLOPT_HTTPGET, 1L));
    RETURN_IF_ERROR(SET_OPTION(hndl.curl_hndl, CURLOPT_RANGE, range.c_str()));
    return request(hndl, url, resp);
}

errdesc_t* httpclnt_post(http_handle_t& hndl, const std::string& url, const std::string& body, http_response_t* resp) {
    const mutex_lock_t lock(hndl.mutex);
    RETURN_IF_ERROR(SET_OPTION(hndl.curl_hndl, CURLOPT_POSTFIELDS, body.c_str()));
    return request(hndl, url, resp);
}

errdesc_t* httpclnt_upload(http_handle_t& hndl, const std::string& url, const std::string& path,
                           http_response_t* resp) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0)
        return errdesc_set_fmt(errno, "Cannot access file %s for upload", path.c_str());
    const file_ptr file(std::fopen(path.c_str(), "re"));
    if (file == nullptr)
        return errdesc_set_fmt(errno, "Cannot open file %s for upload", path.c_str());

    const mutex_lock_t lock(hndl.mutex);
    RETURN_IF_ERROR(SET_OPTION(hndl.curl_hndl, CURLOPT_UPLOAD, 1L));
    RETURN_IF_ERROR(SET_OPTION(hndl.curl_hndl, CURLOPT_READFUNCTION, nullptr));
    RETURN_IF_ERROR(SET_OPTION(hndl.curl_hndl, CURLOPT_READDATA, file.get()));
    RETURN_IF_ERROR(SET_OPTION(hndl.curl_hndl, CURLOPT_INFILESIZE_LARGE, curl_off_t{st.st_size}));
    return request(hndl, url, resp);
}

errdesc_t* httpclnt_enable_cookies(http_handle_t& hndl, const std::string& path, bool session) {
    const mutex_lock_t lock(hndl.mutex);
    RETURN_IF_ERROR(set_option(hndl.curl_hndl, CURLOPT_COOKIEFILE, path.c_str(), "CURLOPT_COOKIEFILE " + path));
    RETURN_IF_ERROR(set_option(hndl.curl_hndl, CURLOPT_COOKIEJAR, path.c_str(), "CURLOPT_COOKIEJAR " + path));
    return session ? SET_OPTION(hndl.curl_hndl, CURLOPT_COOKIESESSION, 1L) : nullptr;
}

errdesc_t* httpclnt_user_password(http_handle_t& hndl, const std::string& user, const secret_t& password) {
    const mutex_lock_t lock(hndl.mutex);
    hndl.user_name = user;
    hndl.password = password;
    return nullptr;
}

errdesc_t* httpclnt_no_cache(http_handle_t& hndl) {
    return replace_headers(hndl, {"Cache-Control: no-cache,no-store,max-age=0", "Pragma: no-cache"});
}

errdesc_t* httpclnt_set_content_type_in_header(http_handle_t& hndl, const std::string& line) {
    if (line.empty())
        return errdesc_set_str(EINVAL, "Cannot set Content-Type to NULL");
    return replace_headers(hndl, {line.c_str()});
}

errdesc_t* httpclnt_output_file(http_handle_t& hndl, const std::optional<std::string>& path) {
    const mutex_lock_t lock(hndl.mutex);
    hndl.file_name = path;
    return nullptr;
}

errdesc_t* httpclnt_set_timeout(http_handle_t& hndl, long seconds) NO_THREAD_SAFETY_ANALYSIS {
    hndl.mutex.lock();
    RETURN_IF_ERROR(set_option(hndl.curl_hndl, CURLOPT_TIMEOUT, seconds, "CURLOPT_TIMEOUT " + std::to_string(seconds)));
    hndl.mutex.unlock();
    return nullptr;
}

errdesc_t* httpclnt_interrupt(http_handle_t& hndl, const std::atomic<int>* flag) {
    const mutex_lock_t lock(hndl.mutex);
    if (flag == nullptr)
        return SET_OPTION(hndl.curl_hndl, CURLOPT_NOPROGRESS, 1L);
    errdesc_t* last = SET_OPTION(hndl.curl_hndl, CURLOPT_NOPROGRESS, 0L);
    if (errdesc_t* e =
            set_option(hndl.curl_hndl, CURLOPT_XFERINFOFUNCTION, &is_interrupted, "CURLOPT_PROGRESSFUNCTION"))
        last = e;
    if (errdesc_t* e = set_option(hndl.curl_hndl, CURLOPT_XFERINFODATA, flag, "CURLOPT_PROGRESSDATA"))
        last = e;
    return last;
}

errdesc_t* httpclnt_flush(http_handle_t& hndl) {
    const mutex_lock_t lock(hndl.mutex);
    close_output_file(hndl);
    return set_option(hndl.curl_hndl, CURLOPT_COOKIELIST, "FLUSH", "CURLOPT_COOKIELIST FLUSH");
}

errdesc_t* httpclnt_reset(http_handle_t& hndl) {
    const mutex_lock_t lock(hndl.mutex);
    hndl.retry = 0;
    close_output_file(hndl);
    hndl.http_headers.reset();
    curl_easy_reset(hndl.curl_hndl.get());
    return nullptr;
}

errdesc_t* httpclnt_escape_str(http_handle_t& hndl, const std::string& text, std::string* escaped) {
    struct curl_freer_t {
        void operator()(char* memory) const { curl_free(memory); }
    };
    // libcurl turns a negative length down; 0 means up to the zero byte, so an empty text stays one.
    const int length = text.size() <= INT_MAX ? static_cast<int>(text.size()) : -1;
    const mutex_lock_t lock(hndl.mutex);
    const std::unique_ptr<char, curl_freer_t> result(curl_easy_escape(hndl.curl_hndl.get(), text.c_str(), length));
    if (result == nullptr)
        return errdesc_set_str(ENOMEM, "Error allocating space for escaped URL string");
    *escaped = result.get();
    return nullptr;
}

void httpclnt_free(std::string* escaped) {
    *escaped = {};
}

void httpclnt_response_init(http_response_t* resp) {
    *resp = {};
}

void httpclnt_response_free(http_response_t* resp) {
    *resp = {};
}

}  // namespace mirador
