// Files to and from a file server, with libcurl's easy interface.  The URL's scheme chooses the protocol.
// No credentials go to the log, nor the URL of a download.  libcurl's own account of a download goes to
// standard error and shows what is sent, the password included: whoever starts the daemon must not collect
// that stream.
#pragma once
#include <cstddef>

// Fetches `url` into the kit file on flash.  0 when it is stored and its MD5 equals `md5` (32 lower-case
// hexadecimal digits, compared exactly; null: not compared), else -1.  Runs on the caller's thread until the
// transfer ends, without time limit.  What arrived of a failed download stays; a kit held before is lost only
// once data arrives.
int kit_download(const char *username, const char *password, const char *url, const char *md5);

// Sends /flash/<filename> to the directory `filePath`.  0, and the MD5 of the bytes sent in `checkSum` (33
// bytes); libcurl's result code when the transfer fails; -1 when the local file is missing, the composed URL
// is too long or the transfer cannot be set up.  Upload threads only: the slot of the calling thread can ask
// the transfer to stop.
int stats_upload(const char *username, const char *password, const char *filePath, const char *filename,
                 char *checkSum);

// The URL of a file in a server's directory, with one "/" between them.  0, or -1 when it does not fit: `out`
// then holds no URL.
using UploadUrl = char[256];
[[nodiscard]] int getUrlwithFilename(const char *filePath, const char *filename, UploadUrl &out);

// libcurl's read function of an upload.
size_t read_callback(void *buffer, size_t size, size_t count, void *context);
