// Files of the sandbox, in one call each.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

constexpr char LOG_FILE[] = "/tmp/cgi.log";

// The whole content; empty when there is no such file.
std::string ReadText(const std::filesystem::path& path);

// Makes the folder too.
void WriteText(const std::filesystem::path& path, const std::string& text);

// How many descriptors this process has open.
std::ptrdiff_t OpenDescriptors();

// The text's lines, without their newlines; an unterminated last line counts.
std::vector<std::string> Lines(const std::string& text);
