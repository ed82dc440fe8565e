// The few operations on files that differ between platforms. Paths are UTF-8.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace kiv::platform {

// Descriptor of the file opened for reading, or -1.
int openForReading(const char* path);

// In bytes; -1 when it cannot be told.
int64_t fileSize(int fd);

void closeDescriptor(int fd);

// The first `length` bytes of the file, read-only, page-aligned; null on failure.
const uint8_t* mapFile(int fd, uint64_t length);
void unmapFile(const uint8_t* base, uint64_t length);

enum class PathKind { Missing, RegularFile, Other };
PathKind pathKind(const std::string& path);

// Creates the file, or empties it, for writing; null and errno on failure.
std::FILE* createFile(const std::string& path);

// The rest return false and set errno on failure.
bool syncFile(std::FILE* file);                                    // down to the disk
bool replaceFile(const std::string& from, const std::string& to);  // atomically
bool removeFile(const std::string& path);

}  // namespace kiv::platform
