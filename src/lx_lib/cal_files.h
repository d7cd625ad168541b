// The on-disk cache of calibration records, one file per instrument serial
// number, so that an open need not read the record from flash every time.
//
// Folder: $XDG_CACHE_HOME (when set and absolute), else $HOME/.cache, then
// halvorn/cal_files/; created when missing, worked out once per process.
// File: "lx%08d.bin" holding the calSizeBytes image byte for byte.
//
// Thread-safe. A save writes a private temporary file next to the cache file
// and renames it into place, so readers (in this or another process) see the
// old complete file or the new complete file, never a torn one.
#pragma once

#include <cstdint>
#include <string>

namespace lx {

// With a trailing '/'; empty when no home folder can be found.
std::string CacheFolder();
std::string CalFilePath(int32_t serial);
// The file exists and is not a directory.
bool CalFileExists(int32_t serial);
// True when a whole record was read into image. A missing file yields false;
// a short one fails the assertion "read == calSizeBytes" and yields false.
// image is left untouched unless the whole record was read.
bool LoadCalFile(int32_t serial, uint8_t* image);
// A folder or file that cannot be created is skipped silently; a write that
// fails part-way fails the assertion "written == calSizeBytes" and leaves any
// earlier cache file as it was.
void SaveCalFile(int32_t serial, const uint8_t* image);

// The same operations on an explicit folder (ending in '/'), for tools and tests.
std::string CacheFolderFor(const char* xdgCacheHome, const char* home);
std::string CalFilePathIn(const std::string& folder, int32_t serial);
bool CalFileExistsIn(const std::string& folder, int32_t serial);
bool LoadCalFileIn(const std::string& folder, int32_t serial, uint8_t* image);
void SaveCalFileIn(const std::string& folder, int32_t serial, const uint8_t* image);

} // namespace lx
