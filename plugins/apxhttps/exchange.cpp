#include "exchange.h"

#include "status.h"

#include <curl/curl.h>
#include <memory>
#include <new>
#include <sys/socket.h>

namespace tessary::apxhttps {
namespace {

constexpr std::size_t longestAnswer = 64 * 1024; // head and body

struct CurlDeleter {
    void operator()(CURL* transfer) const { curl_easy_cleanup(transfer); }
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using Transfer = std::unique_ptr<CURL, CurlDeleter>;
using HeaderList = std::unique_ptr<curl_slist, CurlDeleter>;

void Check(CURLcode result) {
    if (result != CURLE_OK)
        throw Failure(StatusOfTransfer(result, 0));
}

template <typename Value>
void Set(const Transfer& transfer, CURLoption option, Value value) {
    Check(curl_easy_setopt(transfer.get(), option, value));
}

/// Never undone: the plug-in stays loaded. A start that fails is tried again by the next exchange.
void StartLibrary() {
    static const bool started = (Check(curl_global_init(CURL_GLOBAL_DEFAULT)), true);
    static_cast<void>(started);
}

/// What arrives. Its memory is there beforehand, so that nothing can fail while it does.
class Received {
public:
    Received() { body_.reserve(longestAnswer); }

    static std::size_t Head(char*, std::size_t, std::size_t count, void* received) noexcept {
        return static_cast<Received*>(received)->Count(count) ? count : 0;
    }

    static std::size_t Body(char* data, std::size_t, std::size_t count, void* received) noexcept {
        auto& self = *static_cast<Received*>(received);
        const bool fits = self.Count(count);
        if (fits)
            self.body_.append(data, count);
        OPENSSL_cleanse(data, count); // the transfer's buffer is freed as it is
        return fits ? count : 0;
    }

    SecretString TakeBody() { return std::move(body_); }

private:
    bool Count(std::size_t count) {
        if (count > longestAnswer - size_)
            return false;
        size_ += count;
        return true;
    }

    std::size_t size_ = 0;
    SecretString body_;
};

/// The host may start programs meanwhile: they get nothing of the connection.
curl_socket_t OpenSocket(void*, curlsocktype, curl_sockaddr* address) noexcept {
    return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

CURLcode PrepareTls(CURL*, void* context, void* check) noexcept {
    const auto tls = static_cast<SSL_CTX*>(context);
    SSL_CTX_set_options(tls, SSL_OP_CLEANSE_PLAINTEXT);
    SSL_CTX_set_keylog_callback(tls, nullptr); // the environment may ask for a file of the keys
    if (check)
        static_cast<CertificateCheck*>(check)->Install(tls);
    return CURLE_OK;
}

void SetConnection(const Transfer& transfer, const Limits& limits) {
    Set(transfer, CURLOPT_PROTOCOLS_STR, "https");
    Set(transfer, CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1});
    Set(transfer, CURLOPT_FOLLOWLOCATION, 0L);
    Set(transfer, CURLOPT_PROXY, ""); // not even one that the environment names
    Set(transfer, CURLOPT_NOPROXY, "*");
    Set(transfer, CURLOPT_NETRC, long{CURL_NETRC_IGNORED});
    Set(transfer, CURLOPT_OPENSOCKETFUNCTION, OpenSocket);
    Set(transfer, CURLOPT_NOSIGNAL, 1L);
    Set(transfer, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(limits.connect.count()));
    Set(transfer, CURLOPT_TIMEOUT_MS, static_cast<long>(limits.whole.count()));
    // A name look-up cannot be ended. When time is up it is left to end by itself; nothing waits.
    Set(transfer, CURLOPT_QUICK_EXIT, 1L);
}

void SetTls(const Transfer& transfer, CertificateCheck* check) {
    Set(transfer, CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1_2});
    Set(transfer, CURLOPT_SSL_VERIFYPEER, check ? 1L : 0L);
    Set(transfer, CURLOPT_SSL_VERIFYHOST, 0L);
    // The check takes the place of the system's authorities, which need not even be installed.
    Set(transfer, CURLOPT_CAINFO, static_cast<const char*>(nullptr));
    Set(transfer, CURLOPT_CAPATH, static_cast<const char*>(nullptr));
    Set(transfer, CURLOPT_SSL_CTX_FUNCTION, PrepareTls);
    Set(transfer, CURLOPT_SSL_CTX_DATA, static_cast<void*>(check));
}

/// \return the headers, which must live as long as the transfer
HeaderList SetRequest(const Transfer& transfer, const Request& request) {
    Set(transfer, CURLOPT_URL, request.url.c_str());
    if (!request.body)
        return nullptr;
    Set(transfer, CURLOPT_POST, 1L);
    Set(transfer, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body->size()));
    Set(transfer, CURLOPT_POSTFIELDS, request.body->data());
    HeaderList headers(curl_slist_append(nullptr, "Content-Type: application/json"));
    if (!headers || !curl_slist_append(headers.get(), "Expect:"))
        throw std::bad_alloc();
    Set(transfer, CURLOPT_HTTPHEADER, headers.get());
    return headers;
}

void SetReceived(const Transfer& transfer, Received& received) {
    Set(transfer, CURLOPT_HEADERFUNCTION, Received::Head);
    Set(transfer, CURLOPT_HEADERDATA, &received);
    Set(transfer, CURLOPT_WRITEFUNCTION, Received::Body);
    Set(transfer, CURLOPT_WRITEDATA, &received);
}

long Information(const Transfer& transfer, CURLINFO which) {
    long value = 0;
    Check(curl_easy_getinfo(transfer.get(), which, &value));
    return value;
}

/// The status of a transfer that failed.
Status StatusOfFailed(const Transfer& transfer, CURLcode result) {
    curl_off_t answerBegan = 0;
    Check(curl_easy_getinfo(transfer.get(), CURLINFO_STARTTRANSFER_TIME_T, &answerBegan));
    // A line of the head that does not end is reported as a lack of memory too.
    if (result == CURLE_OUT_OF_MEMORY && answerBegan > 0)
        return Status::InternalError;
    return StatusOfTransfer(result, Information(transfer, CURLINFO_OS_ERRNO));
}

void Perform(const Transfer& transfer, const CertificateCheck* check) {
    char reason[CURL_ERROR_SIZE] = "";
    Set(transfer, CURLOPT_ERRORBUFFER, reason);
    const CURLcode result = curl_easy_perform(transfer.get());
    Set(transfer, CURLOPT_ERRORBUFFER, static_cast<char*>(nullptr));
    if (check && check->Refused())
        throw Failure(Status::UntrustedCertificate, check->WhyRefused());
    if (result != CURLE_OK)
        throw Failure(StatusOfFailed(transfer, result),
                      *reason != '\0' ? reason : curl_easy_strerror(result));
}

} // namespace

Answer Exchange(const Request& request, CertificateCheck* check, const Limits& limits) {
    StartLibrary();
    Received received;
    const Transfer transfer(curl_easy_init());
    if (!transfer)
        throw std::bad_alloc();
    SetConnection(transfer, limits);
    SetTls(transfer, check);
    SetReceived(transfer, received);
    const HeaderList headers = SetRequest(transfer, request);
    Perform(transfer, check);
    return {Information(transfer, CURLINFO_RESPONSE_CODE), received.TakeBody()};
}

} // namespace tessary::apxhttps
