#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

/// Files that survive a crash and a power cut. Every failure is a
/// std::filesystem::filesystem_error that names the path. Thread-safe.
namespace storage
{

/// Replaces the content of `file`, or makes it: temporary file beside it,
/// fsync, rename, fsync of the directory. Readers, and whoever looks after a
/// power cut, find the old content or the new one, whole. A failure before the
/// rename leaves the old content; one of the last fsync leaves the new one,
/// which a power cut may take back. No failure leaves the temporary file.
void writeFileDurably(const std::filesystem::path& file, std::string_view content);

/// False when there was no such file.
bool removeFileDurably(const std::filesystem::path& file);

/// Removes what writes that a crash ended have left in `directory`, and tells
/// how many files these were. Not while anybody writes there.
std::size_t removeTemporaryFiles(const std::filesystem::path& directory);

/// "FILE.damaged", "FILE.damaged.2" and so on: the first name under which nothing
/// stands, for a file that is kept beside the one that takes its place.
std::filesystem::path nameForDamaged(const std::filesystem::path& file);

/// Refuses files of more than `limit` bytes.
std::string readFile(const std::filesystem::path& file, std::uintmax_t limit = 64 << 20);

/// Makes the names that stand in a directory durable.
void syncDirectory(const std::filesystem::path& directory);

/// Makes a directory with all its files and folders durable. Links are not followed.
void syncTree(const std::filesystem::path& directory);

} // namespace storage
