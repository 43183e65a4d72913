// Files to and from a file server, with libcurl's easy interface.  The URL's scheme chooses the protocol.
// Credentials and URLs of downloads are never logged.
#pragma once

// Fetches `url` into the kit file on flash.  0 when it is stored and its MD5 equals `md5` (32 lower-case
// hexadecimal digits, compared exactly; null: not compared), else -1.  Runs on the caller's thread until the
// transfer ends, without time limit.
int kit_download(const char *username, const char *password, const char *url, const char *md5);

// Sends /flash/<filename> to the directory `filePath`.  0, and the MD5 of the bytes sent in `checkSum` (33
// bytes); libcurl's result code when the transfer fails; -1 when the local file is missing or the transfer
// cannot be set up.  Upload threads only: the slot of the calling thread can ask the transfer to stop.
int stats_upload(const char *username, const char *password, const char *filePath, const char *filename,
                 char *checkSum);
