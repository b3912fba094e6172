// SPDX-License-Identifier: MIT
#include "AlertNotifier.h"

#include <algorithm>
#include <ctime>
#include <memory>

#include <curl/curl.h>

#include "NimbVersion.h"

namespace {

// libcurl's global state is set up once for the process, the first time a notification
// goes out (the static's initialisation is thread-safe); it is never torn down.
CURLcode globalInit() {
    static const CURLcode result = curl_global_init(CURL_GLOBAL_DEFAULT);
    return result;
}

struct EasyDeleter {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct ListDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
struct UrlDeleter {
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
using Easy = std::unique_ptr<CURL, EasyDeleter>;
using List = std::unique_ptr<curl_slist, ListDeleter>;

bool append(List& list, const std::string& line) {
    curl_slist* next = curl_slist_append(list.get(), line.c_str());
    if (next == nullptr) return false;
    (void)list.release();  // `next` is the same list, one entry longer
    list.reset(next);
    return true;
}

const char* kindName(AlertChannel::Kind kind) {
    switch (kind) {
        case AlertChannel::Kind::Webhook:
            return "web hook";
        case AlertChannel::Kind::Ntfy:
            return "ntfy";
        case AlertChannel::Kind::Email:
            return "e-mail";
    }
    return "channel";
}

// What an error may say about the channel's URL: its scheme, host and port. The path and
// query may hold a token (many hooks carry theirs there), so they never appear.
struct Endpoint {
    std::string label;  // "https://host:443"
    std::string path;   // path and query, for scrubbing
};

std::string urlPart(CURLU* url, CURLUPart part, unsigned flags = 0) {
    char* value = nullptr;
    if (curl_url_get(url, part, &value, flags) != CURLUE_OK || value == nullptr) return {};
    std::string out = value;
    curl_free(value);
    return out;
}

bool parseEndpoint(const AlertChannel& channel, Endpoint& endpoint, std::string& error) {
    const std::unique_ptr<CURLU, UrlDeleter> url(curl_url());
    if (!url || curl_url_set(url.get(), CURLUPART_URL, channel.url.c_str(), 0) != CURLUE_OK) {
        error = "the URL is not a valid absolute URL";
        return false;
    }
    const std::string scheme = urlPart(url.get(), CURLUPART_SCHEME);
    const bool mail = channel.kind == AlertChannel::Kind::Email;
    if (mail ? scheme != "smtp" && scheme != "smtps" : scheme != "http" && scheme != "https") {
        error = mail ? "the URL must start with smtp:// or smtps://"
                     : "the URL must start with http:// or https://";
        return false;
    }
    if (!urlPart(url.get(), CURLUPART_USER).empty() ||
        !urlPart(url.get(), CURLUPART_PASSWORD).empty()) {
        error =
            "the URL must not carry a user or password (they belong in the channel's "
            "user and secret)";
        return false;
    }
    endpoint.label = scheme + "://" + urlPart(url.get(), CURLUPART_HOST) + ":" +
                     urlPart(url.get(), CURLUPART_PORT, CURLU_DEFAULT_PORT);
    endpoint.path = urlPart(url.get(), CURLUPART_PATH);
    const std::string query = urlPart(url.get(), CURLUPART_QUERY);
    if (!query.empty()) endpoint.path += "?" + query;
    return true;
}

// A plain mail address: printable ASCII without spaces or the characters that would
// make it a display name, a group or a second address, with one '@' inside.
bool isMailAddress(const std::string& address) {
    if (address.empty() || address.size() > 254) return false;
    for (const char c : address) {
        if (c <= 0x20 || c > 0x7E) return false;
        if (std::string_view("<>()[]\\,;:\"").find(c) != std::string_view::npos) return false;
    }
    const std::size_t at = address.find('@');
    return at != std::string::npos && at > 0 && at + 1 < address.size() &&
           address.find('@', at + 1) == std::string::npos;
}

bool isHeaderToken(const std::string& value) {
    for (const char c : value) {
        if (c <= 0x20 || c > 0x7E) return false;
    }
    return true;
}

void replaceAll(std::string& text, const std::string& what, const std::string& with) {
    if (what.empty()) return;
    for (std::size_t at = text.find(what); at != std::string::npos;
         at = text.find(what, at + with.size())) {
        text.replace(at, what.size(), with);
    }
}

std::size_t discardBody(char*, std::size_t size, std::size_t count, void*) { return size * count; }

struct Upload {
    const std::string* data;
    std::size_t offset = 0;
};

std::size_t readUpload(char* buffer, std::size_t size, std::size_t count, void* userdata) {
    auto* upload = static_cast<Upload*>(userdata);
    const std::size_t n = std::min(size * count, upload->data->size() - upload->offset);
    std::copy_n(upload->data->data() + upload->offset, n, buffer);
    upload->offset += n;
    return n;
}

// The reason of a failed transfer in plain words, with the mail server's refusal code and
// libcurl's detail when they add something.
std::string reason(CURLcode code, const char* detail, long reply, long timeoutMs) {
    std::string text;
    bool withDetail = true;
    switch (code) {
        case CURLE_COULDNT_CONNECT:
            text = "cannot connect (refused or unreachable)";
            withDetail = false;
            break;
        case CURLE_COULDNT_RESOLVE_HOST:
            text = "host name not found";
            break;
        case CURLE_COULDNT_RESOLVE_PROXY:
            text = "proxy host name not found";
            break;
        case CURLE_OPERATION_TIMEDOUT:
            text = "no answer within " + std::to_string(timeoutMs) + " ms";
            withDetail = false;
            break;
        case CURLE_PEER_FAILED_VERIFICATION:
            text = "the server's TLS certificate is not trusted";
            break;
        case CURLE_SSL_CONNECT_ERROR:
            text = "TLS handshake failed";
            break;
        case CURLE_SSL_CACERT_BADFILE:
            text = "the CA file cannot be read";
            break;
        case CURLE_LOGIN_DENIED:
            text = "login refused: wrong user or password";
            withDetail = false;
            break;
        case CURLE_USE_SSL_FAILED:
            text = "the server does not offer STARTTLS, and mail is only sent encrypted";
            withDetail = false;
            break;
        case CURLE_AUTH_ERROR:
            text = "no login method in common with the server";
            break;
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_GOT_NOTHING:
            text = "the connection broke off";
            break;
        case CURLE_UNSUPPORTED_PROTOCOL:
            text = "protocol not allowed";
            break;
        default:
            text = curl_easy_strerror(code);
            break;
    }
    if (reply >= 400) text += " (reply " + std::to_string(reply) + ")";  // the refusal
    if (withDetail && detail != nullptr && detail[0] != '\0') text += ": " + std::string(detail);
    return text;
}

void setCommonOptions(CURL* handle, const AlertChannel& channel, long timeoutMs, char* errors) {
    curl_easy_setopt(handle, CURLOPT_URL, channel.url.c_str());
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, timeoutMs);
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, timeoutMs);
    curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https,smtp,smtps");
    curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, errors);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, discardBody);
    // With OpenSSL the system's CA folder stays trusted next to this bundle.
    if (!channel.caFile.empty()) curl_easy_setopt(handle, CURLOPT_CAINFO, channel.caFile.c_str());
    const std::string agent = std::string("NimbRemoteLogger/") + kNimbVersion;
    curl_easy_setopt(handle, CURLOPT_USERAGENT, agent.c_str());  // libcurl copies it
}

}  // namespace

AlertNotifier::AlertNotifier() : AlertNotifier(Options{}) {}

AlertNotifier::AlertNotifier(Options options) : options_(options) {
    if (options_.timeout.count() <= 0) options_.timeout = std::chrono::milliseconds(10000);
}

AlertSendResult AlertNotifier::send(const AlertChannel& channel,
                                    const AlertMessage& message) const {
    AlertSendResult result;
    const std::string what = kindName(channel.kind);
    Endpoint endpoint;
    std::string problem;
    if (globalInit() != CURLE_OK) {
        result.error = what + ": libcurl could not be initialised";
        return result;
    }
    if (!parseEndpoint(channel, endpoint, problem)) {
        result.error = what + ": " + problem;
        return result;
    }
    const auto fail = [&](const std::string& text) {
        std::string error = what + " " + endpoint.label + ": " + text;
        for (char& c : error) {
            if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = ' ';
        }
        replaceAll(error, channel.secret, "***");
        if (endpoint.path.size() > 1) replaceAll(error, endpoint.path, "/...");
        result.error = error;
        return result;
    };

    const Easy easy(curl_easy_init());
    if (!easy) return fail("libcurl could not start a transfer");
    CURL* handle = easy.get();
    const long timeoutMs = static_cast<long>(options_.timeout.count());
    char errors[CURL_ERROR_SIZE] = {};
    setCommonOptions(handle, channel, timeoutMs, errors);

    std::string payload;
    List headers;
    List recipients;
    Upload upload{&payload};
    bool listed = true;  // every header and recipient made it into its list
    const auto addHeader = [&](const std::string& line) {
        listed = append(headers, line) && listed;
    };

    if (channel.kind == AlertChannel::Kind::Email) {
        if (!isMailAddress(channel.from)) return fail("the sender is not a plain mail address");
        if (channel.to.empty()) return fail("no recipient");
        for (const std::string& to : channel.to) {
            if (!isMailAddress(to)) return fail("a recipient is not a plain mail address");
            listed = append(recipients, "<" + to + ">") && listed;
        }
        if (!channel.user.empty() && !isHeaderToken(channel.user)) {
            return fail("the login name has spaces or control characters");
        }
        payload = AlertFormat::mailMessage(channel, message, std::time(nullptr));
        const std::string from = "<" + channel.from + ">";
        curl_easy_setopt(handle, CURLOPT_USE_SSL, static_cast<long>(CURLUSESSL_ALL));
        if (!channel.user.empty()) {
            curl_easy_setopt(handle, CURLOPT_USERNAME, channel.user.c_str());
            curl_easy_setopt(handle, CURLOPT_PASSWORD, channel.secret.c_str());
        }
        curl_easy_setopt(handle, CURLOPT_MAIL_FROM, from.c_str());
        curl_easy_setopt(handle, CURLOPT_MAIL_RCPT, recipients.get());
        curl_easy_setopt(handle, CURLOPT_UPLOAD, 1L);
        curl_easy_setopt(handle, CURLOPT_READFUNCTION, readUpload);
        curl_easy_setopt(handle, CURLOPT_READDATA, &upload);
        curl_easy_setopt(handle, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(payload.size()));
    } else {
        if (!channel.secret.empty()) {
            if (!isHeaderToken(channel.secret)) {
                return fail("the token has spaces or control characters");
            }
            addHeader("Authorization: Bearer " + channel.secret);
        }
        if (channel.kind == AlertChannel::Kind::Webhook) {
            payload = AlertFormat::webhookJson(message);
            addHeader("Content-Type: application/json");
        } else {
            payload = AlertFormat::ntfyBody(message);
            for (const std::string& line : AlertFormat::ntfyHeaders(channel, message)) {
                addHeader(line);
            }
            addHeader("Content-Type: text/plain; charset=utf-8");
        }
        addHeader("Expect:");  // no 100-continue round trip
        curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
        curl_easy_setopt(handle, CURLOPT_POST, 1L);
        curl_easy_setopt(handle, CURLOPT_POSTFIELDS, payload.data());
        curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE,
                         static_cast<curl_off_t>(payload.size()));
    }

    if (!listed) return fail("out of memory");

    const CURLcode code = curl_easy_perform(handle);
    long status = 0;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    result.status = status;
    if (code != CURLE_OK) {
        return fail(reason(code, errors, channel.kind == AlertChannel::Kind::Email ? status : 0,
                           timeoutMs));
    }
    if (channel.kind != AlertChannel::Kind::Email && (status < 200 || status > 299)) {
        return fail("HTTP status " + std::to_string(status) +
                    (status >= 300 && status < 400 ? " (redirects are not followed)" : ""));
    }
    result.ok = true;
    return result;
}
