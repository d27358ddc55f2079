#include "platform/linux/desktop_entry_reader.h"

#include "platform/linux/xdg_paths.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <set>

namespace tarry::platform::os {
namespace {

namespace fs = std::filesystem;

/// Larger files are no desktop entries; reading them would only cost memory.
constexpr std::uintmax_t maxFileBytes = 1 << 20;

std::string_view trimmed(std::string_view s) {
  const auto isSpace = [](char c) { return c == ' ' || c == '\t' || c == '\r'; };
  while (!s.empty() && isSpace(s.front())) s.remove_prefix(1);
  while (!s.empty() && isSpace(s.back())) s.remove_suffix(1);
  return s;
}

/// Undoes the escapes of string values: \s \n \t \r \\. Other backslashes stay as they are.
std::string unescaped(std::string_view value) {
  std::string out;
  out.reserve(value.size());
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (value[i] != '\\' || i + 1 == value.size()) {
      out += value[i];
      continue;
    }
    switch (value[i + 1]) {
      case 's':
        out += ' ';
        break;
      case 'n':
        out += '\n';
        break;
      case 't':
        out += '\t';
        break;
      case 'r':
        out += '\r';
        break;
      case '\\':
        out += '\\';
        break;
      default:
        out += value[i];
        out += value[i + 1];
        break;
    }
    ++i;
  }
  return out;
}

std::string foldedASCII(std::string_view text) {
  std::string folded(text);
  for (char& c : folded) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return folded;
}

std::string normalized(const std::string& path) {
  std::string s = fs::path(path).lexically_normal().string();
  while (s.size() > 1 && s.back() == '/') s.pop_back();
  return s;
}

std::optional<std::string> readSmallFile(const std::string& path) {
  std::error_code ec;
  if (!fs::is_regular_file(path, ec)) return std::nullopt;
  const std::uintmax_t size = fs::file_size(path, ec);
  if (ec || size > maxFileBytes) return std::nullopt;
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) return std::nullopt;
  return text;
}

std::optional<fs::file_time_type> folderTime(const std::string& folder) {
  std::error_code ec;
  if (!fs::is_directory(folder, ec)) return std::nullopt;
  const auto time = fs::last_write_time(folder, ec);
  if (ec) return std::nullopt;
  return time;
}

}  // namespace

std::vector<std::string> localeVariants(std::string_view locale) {
  std::string_view lang = locale;
  std::string_view country;
  std::string_view modifier;
  if (const auto at = lang.find('@'); at != std::string_view::npos) {
    modifier = lang.substr(at + 1);
    lang = lang.substr(0, at);
  }
  if (const auto dot = lang.find('.'); dot != std::string_view::npos) lang = lang.substr(0, dot);
  if (const auto underscore = lang.find('_'); underscore != std::string_view::npos) {
    country = lang.substr(underscore + 1);
    lang = lang.substr(0, underscore);
  }
  if (lang.empty() || lang == "C" || lang == "POSIX") return {};
  const std::string base(lang);
  std::vector<std::string> variants;
  if (!country.empty() && !modifier.empty())
    variants.push_back(base + "_" + std::string(country) + "@" + std::string(modifier));
  if (!country.empty()) variants.push_back(base + "_" + std::string(country));
  if (!modifier.empty()) variants.push_back(base + "@" + std::string(modifier));
  variants.push_back(base);
  return variants;
}

std::string messagesLocale() {
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* value = std::getenv(name);
    if (value != nullptr && *value != '\0') return value;
  }
  return {};
}

std::string desktopFileId(const std::string& path, const std::vector<std::string>& dataDirectories) {
  const std::string file = normalized(path);
  std::string relative;
  for (const std::string& dir : dataDirectories) {
    const std::string prefix = normalized(dir) + "/applications/";
    if (file.size() > prefix.size() && file.compare(0, prefix.size(), prefix) == 0) {
      relative = file.substr(prefix.size());
      break;
    }
  }
  if (relative.empty()) {
    const std::string marker = "/applications/";
    const auto at = file.rfind(marker);
    relative = at != std::string::npos ? file.substr(at + marker.size()) : fs::path(file).filename().string();
  }
  std::replace(relative.begin(), relative.end(), '/', '-');
  const std::string suffix = ".desktop";
  if (relative.size() > suffix.size() &&
      relative.compare(relative.size() - suffix.size(), suffix.size(), suffix) == 0) {
    relative.resize(relative.size() - suffix.size());
  }
  return relative;
}

std::optional<DesktopEntry> parseDesktopEntry(std::string_view text,
                                              const std::vector<std::string>& locales) {
  if (text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);
  // Keys of the [Desktop Entry] group; the first occurrence of a key counts.
  std::map<std::string, std::string, std::less<>> keys;
  bool inGroup = false;
  bool seenGroup = false;
  while (!text.empty()) {
    const auto end = text.find('\n');
    const std::string_view line = trimmed(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (line.empty() || line.front() == '#') continue;
    if (line.front() == '[') {
      // NOTE: only the first [Desktop Entry] group is read; actions and other groups carry keys
      // of the same names (Name, Exec) that must not leak into the application's.
      if (inGroup) break;
      inGroup = !seenGroup && line == "[Desktop Entry]";
      seenGroup = seenGroup || inGroup;
      continue;
    }
    if (!inGroup) continue;
    const auto eq = line.find('=');
    if (eq == std::string_view::npos) continue;
    const std::string_view key = trimmed(line.substr(0, eq));
    if (key.empty()) continue;
    keys.emplace(std::string(key), std::string(trimmed(line.substr(eq + 1))));
  }
  if (!seenGroup) return std::nullopt;

  const auto value = [&](std::string_view key) -> std::optional<std::string> {
    const auto it = keys.find(key);
    if (it == keys.end()) return std::nullopt;
    return unescaped(it->second);
  };
  const auto flag = [&](std::string_view key) { return value(key).value_or("") == "true"; };

  if (value("Type").value_or("") != "Application") return std::nullopt;
  const std::optional<std::string> name = value("Name");
  if (!name || name->empty()) return std::nullopt;
  DesktopEntry entry;
  entry.exec = value("Exec").value_or("");
  if (entry.exec.empty() && !flag("DBusActivatable")) return std::nullopt;
  entry.name = *name;
  for (const std::string& locale : locales) {
    const std::optional<std::string> localized = value("Name[" + locale + "]");
    if (localized && !localized->empty()) {
      entry.name = *localized;
      break;
    }
  }
  entry.icon = value("Icon").value_or("");
  entry.startupWMClass = value("StartupWMClass").value_or("");
  const std::string categories = value("Categories").value_or("");
  for (std::size_t start = 0; start < categories.size();) {
    std::size_t end = categories.find(';', start);
    if (end == std::string::npos) end = categories.size();
    if (end > start) entry.categories.push_back(categories.substr(start, end - start));
    start = end + 1;
  }
  entry.noDisplay = flag("NoDisplay");
  entry.hidden = flag("Hidden");
  return entry;
}

std::vector<std::string> DesktopEntryReader::directories() const {
  return fixedDirectories_ ? *fixedDirectories_ : dataDirectories();
}

std::optional<DesktopEntry> DesktopEntryReader::readFile(const std::string& path) {
  const std::optional<std::string> text = readSmallFile(path);
  if (!text) return std::nullopt;
  std::optional<DesktopEntry> entry = parseDesktopEntry(*text, localeVariants(messagesLocale()));
  if (!entry) return std::nullopt;
  std::error_code ec;
  const fs::path absolute = fs::absolute(path, ec);
  entry->path = ec ? path : absolute.lexically_normal().string();
  entry->id = desktopFileId(entry->path, directories());
  return entry;
}

bool DesktopEntryReader::stale(const std::vector<std::string>& directories, const std::string& locale) const {
  if (!scanned_ || directories != scannedDirectories_ || locale != scannedLocale_) return true;
  return std::any_of(folderTimes_.begin(), folderTimes_.end(),
                     [](const auto& folder) { return folderTime(folder.first) != folder.second; });
}

void DesktopEntryReader::refresh() {
  const std::vector<std::string> dirs = directories();
  const std::string locale = messagesLocale();
  if (!stale(dirs, locale)) return;
  scanned_ = true;
  scannedDirectories_ = dirs;
  scannedLocale_ = locale;
  folderTimes_.clear();
  entries_.clear();
  const std::vector<std::string> locales = localeVariants(locale);

  std::set<std::string> claimed;
  for (const std::string& dir : dirs) {
    const std::string root = normalized(dir) + "/applications";
    folderTimes_[root] = folderTime(root);
    if (!folderTimes_[root]) continue;
    std::vector<std::string> files;
    std::error_code ec;
    fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied, ec);
    for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
      std::error_code statError;
      if (it->is_directory(statError)) {
        folderTimes_[it->path().string()] = folderTime(it->path().string());
      } else if (it->path().extension() == ".desktop" && it->is_regular_file(statError)) {
        files.push_back(it->path().string());
      }
    }
    std::sort(files.begin(), files.end());
    for (const std::string& file : files) {
      const std::string id = desktopFileId(file, {dir});
      // NOTE: the first file with an id hides every later one, whatever it holds.
      if (!claimed.insert(id).second) continue;
      const std::optional<std::string> text = readSmallFile(file);
      if (!text) continue;
      std::optional<DesktopEntry> entry = parseDesktopEntry(*text, locales);
      if (!entry || entry->hidden) continue;
      entry->id = id;
      entry->path = file;
      entries_.push_back(std::move(*entry));
    }
  }
}

std::optional<DesktopEntry> DesktopEntryReader::findById(const std::string& id) {
  const std::lock_guard lock(mutex_);
  refresh();
  const auto it =
      std::find_if(entries_.begin(), entries_.end(), [&](const DesktopEntry& e) { return e.id == id; });
  if (it == entries_.end()) return std::nullopt;
  return *it;
}

std::optional<DesktopEntry> DesktopEntryReader::findByStartupWMClass(const std::string& wmClass) {
  if (wmClass.empty()) return std::nullopt;
  const std::lock_guard lock(mutex_);
  refresh();
  auto it = std::find_if(entries_.begin(), entries_.end(),
                         [&](const DesktopEntry& e) { return e.startupWMClass == wmClass; });
  if (it == entries_.end()) {
    const std::string folded = foldedASCII(wmClass);
    it = std::find_if(entries_.begin(), entries_.end(),
                      [&](const DesktopEntry& e) { return foldedASCII(e.startupWMClass) == folded; });
  }
  if (it == entries_.end()) return std::nullopt;
  return *it;
}

std::vector<DesktopEntry> DesktopEntryReader::installedApplications() {
  const std::lock_guard lock(mutex_);
  refresh();
  return entries_;
}

}  // namespace tarry::platform::os
