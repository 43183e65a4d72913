#include "kit/transfer.h"

#include <curl/curl.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "core/handle.h"
#include "core/log.h"
#include "core/paths.h"
#include "kit/md5.h"
#include "kit/signature.h"
#include "kit/upload_slots.h"

namespace {

constexpr long kUploadTimeoutSeconds = 780;
constexpr size_t kLargestSignature = 4096;  // bytes

using Curl = std::unique_ptr<CURL, am::Closer<curl_easy_cleanup>>;

struct Download {
    const char *path;
    am::File file;  // none until data arrives
    am::Md5 md5;
    size_t room = SIZE_MAX;  // bytes
};

struct Upload {
    FILE *file;
    size_t left;  // of the size announced: lines that are appended meanwhile belong to the next upload
    am::Md5 md5;
};

// An empty body arrives as a chunk of nothing, for which no file is created.  A result other than the number
// of bytes offered ends the transfer.
size_t writeKit(const void *data, size_t size, size_t count, void *context) {
    auto &download = *static_cast<Download *>(context);
    const size_t length = size * count;
    if (length == 0) return 0;
    if (!download.file) download.file.reset(fopen(download.path, "wbe"));
    if (!download.file || length > download.room) return 0;
    download.room -= length;
    am::md5Add(download.md5, data, length);
    return fwrite(data, 1, length, download.file.get());
}

CURLcode performDownload(CURL *curl, const char *username, const char *password, const char *url,
                         Download &download) {
    curl_easy_setopt(curl, CURLOPT_URL, url);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, writeKit);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &download);
    curl_easy_setopt(curl, CURLOPT_USERNAME, username);
    curl_easy_setopt(curl, CURLOPT_PASSWORD, password);
    curl_easy_setopt(curl, CURLOPT_VERBOSE, 1L);
    return curl_easy_perform(curl);
}

CURLcode performUpload(CURL *curl, const char *username, const char *password, const char *url,
                       Upload &upload) {
    curl_easy_setopt(curl, CURLOPT_USERNAME, username);
    curl_easy_setopt(curl, CURLOPT_PASSWORD, password);
    curl_easy_setopt(curl, CURLOPT_URL, url);
    curl_easy_setopt(curl, CURLOPT_READDATA, &upload);
    curl_easy_setopt(curl, CURLOPT_READFUNCTION, read_callback);
    curl_easy_setopt(curl, CURLOPT_FTP_CREATE_MISSING_DIRS, 1L);
    curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(curl, CURLOPT_INFILESIZE, static_cast<long>(upload.left));
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, kUploadTimeoutSeconds);
    return curl_easy_perform(curl);
}

// Whether the last of the file reached the flash: a full one may show only now.
bool closeKit(Download &download) {
    FILE *const file = download.file.release();
    return !file || fclose(file) == 0;
}

// The size of an open record file; false for what has none, such as a directory.
bool sizeOf(FILE *file, size_t &size) {
    if (fseeko(file, 0, SEEK_END) != 0) return false;
    const off_t end = ftello(file);
    if (end < 0 || end >= LONG_MAX || fseeko(file, 0, SEEK_SET) != 0) return false;
    size = static_cast<size_t>(end);
    return true;
}

// The signature stands beside the kit on the server, too; one that was here before is another kit's.
void fetchSignature(CURL *curl, const char *username, const char *password, const char *url) {
    char path[sizeof kKitPath + 4], signatureUrl[1100];
    snprintf(path, sizeof path, "%s.sig", kKitPath);
    (void)remove(path);
    const size_t length = strcspn(url, "?#");  // of the file's own name
    const int written = snprintf(signatureUrl, sizeof signatureUrl, "%.*s.sig%s", static_cast<int>(length),
                                 url, url + length);
    if (written < 0 || static_cast<size_t>(written) >= sizeof signatureUrl) return;
    Download download{path, nullptr, {}, kLargestSignature};
    am::md5Begin(download.md5);
    curl_easy_setopt(curl, CURLOPT_FAILONERROR, 1L);  // a page that says so is no signature
    if (performDownload(curl, username, password, signatureUrl, download) != CURLE_OK || !closeKit(download))
        (void)remove(path);
}

}  // namespace

int kit_download(const char *username, const char *password, const char *url, const char *md5) {
    const Curl curl(curl_easy_init());
    if (!curl) return -1;
    Download download{kKitPath, nullptr, {}};
    am::md5Begin(download.md5);
    const CURLcode result = performDownload(curl.get(), username, password, url, download);
    if (result != CURLE_OK) {
        amLog(AM_LOG_ERROR, "%s:%d KIT Download FAILURE : CURLcode %d\n", __func__, __LINE__, result);
        return -1;
    }
    const int storeError = closeKit(download) ? 0 : errno;
    const am::Md5Text received = am::md5Text(am::md5End(download.md5));
    if (md5 && strcmp(received.text, md5) != 0) {
        amLog(AM_LOG_ERROR, "%s:%d KIT Download Failure : Md5sum not matching\n", __func__, __LINE__);
        return -1;
    }
    if (storeError != 0) {
        amLog(AM_LOG_ERROR, "%s:%d kit could not be written to flash: errno %d\n", __func__, __LINE__,
              storeError);
        return -1;
    }
    if (am::signaturesRequired(kKeysDir)) fetchSignature(curl.get(), username, password, url);
    amLog(AM_LOG_DEBUG, "%s:%d KIT Download SUCCESS \n", __func__, __LINE__);
    return 0;
}

int getUrlwithFilename(const char *filePath, const char *filename, UploadUrl &out) {
    const size_t length = strlen(filePath);
    const char *separator = length > 0 && filePath[length - 1] == '/' ? "" : "/";
    const int written = snprintf(out, sizeof out, "%s%s%s", filePath, separator, filename);
    if (written < 0 || static_cast<size_t>(written) >= sizeof out) {
        out[0] = '\0';
        amLog(AM_LOG_ERROR, "%s:%d URL for %s is longer than %zu characters\n", __func__, __LINE__, filename,
              sizeof out - 1);
        return -1;
    }
    amLog(AM_LOG_DEBUG, "%s:%d URL %s\n", __func__, __LINE__, out);
    return 0;
}

size_t read_callback(void *buffer, size_t size, size_t count, void *context) {
    auto &upload = *static_cast<Upload *>(context);
    const size_t room = size * count;
    const size_t length = fread(buffer, 1, room < upload.left ? room : upload.left, upload.file);
    upload.left -= length;
    am::md5Add(upload.md5, buffer, length);
    return uploadAskedToStop() ? 0 : length;
}

int stats_upload(const char *username, const char *password, const char *filePath, const char *filename,
                 char *checkSum) {
    char path[256];
    snprintf(path, sizeof path, "%s/%s", kFlash, filename);
    const am::File file(fopen(path, "rbe"));
    Upload upload{file.get(), 0, {}};
    if (!file || !sizeOf(file.get(), upload.left)) {
        amLog(AM_LOG_ERROR, "%s:%d File %s not present\n", __func__, __LINE__, filename);
        return -1;
    }
    const Curl curl(curl_easy_init());
    if (!curl) {
        amLog(AM_LOG_ERROR, "%s:%d Curl Init failure\n", __func__, __LINE__);
        return -1;
    }
    am::md5Begin(upload.md5);
    UploadUrl url;
    if (getUrlwithFilename(filePath, filename, url) != 0) return -1;
    const CURLcode result = performUpload(curl.get(), username, password, url, upload);
    if (result != CURLE_OK) {
        amLog(AM_LOG_ERROR, "%s:%d STATS CSV Upload FAILURE : CURLcode %d\n", __func__, __LINE__, result);
        return result;
    }
    amLog(AM_LOG_DEBUG, "%s:%d STATS CSV Upload SUCCESS : CURLcode %d\n", __func__, __LINE__, result);
    memcpy(checkSum, am::md5Text(am::md5End(upload.md5)).text, sizeof(am::Md5Text));
    return 0;
}
