#include "platform/lumen/Localizer.h"

#include <cctype>
#include <mutex>

namespace Lumen::L10n {

namespace LocalizableMessageHelpers {

std::string formatMessage(const std::string& text, const std::vector<std::string>& args) {
  std::vector<std::string> names;
  std::string out;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t open = text.find('{', pos);
    size_t close = open == std::string::npos ? std::string::npos : text.find('}', open + 1);
    if (close == std::string::npos) {
      out.append(text, pos, std::string::npos);
      break;
    }
    out.append(text, pos, open - pos);
    std::string name = text.substr(open + 1, close - open - 1);
    size_t index = 0;
    while (index < names.size() && names[index] != name) {
      ++index;
    }
    if (index == names.size()) {
      names.push_back(name);
    }
    if (index < args.size()) {
      out += args[index];
    } else {
      out.append(text, open, close - open + 1);
    }
    pos = close + 1;
  }
  return out;
}

}  // namespace LocalizableMessageHelpers

Localizer::Localizer(std::string locale, TemplateSource source)
    : locale_(std::move(locale)), source_(std::move(source)) {}

std::string Localizer::Format(const LocalizableMessage& message, const std::string&) const {
  std::string text = source_ ? source_(message.id) : std::string();
  if (text.empty()) {
    text = message.default_message;
  }
  return LocalizableMessageHelpers::formatMessage(text, message.args);
}

namespace LocalizerHelpers {

namespace {
std::mutex g_mutex;
std::shared_ptr<Localizer> g_default;
}  // namespace

std::shared_ptr<Localizer> GetDefaultLocalizer() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_default;
}

void SetDefaultLocalizer(std::shared_ptr<Localizer> localizer) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_default = std::move(localizer);
}

}  // namespace LocalizerHelpers

namespace {

bool IsRange(const std::string& r) {
  if (r == "*") {
    return true;
  }
  // primary subtag of 1-8 letters, then subtags of 1-8 alphanumerics
  size_t len = 0;
  bool primary = true;
  for (char c : r) {
    if (c == '-' || c == '_') {
      if (len == 0) {
        return false;
      }
      primary = false;
      len = 0;
      continue;
    }
    bool ok = primary ? std::isalpha(static_cast<unsigned char>(c)) : std::isalnum(static_cast<unsigned char>(c));
    if (!ok || ++len > 8) {
      return false;
    }
  }
  return len > 0;
}

bool IsWeight(const std::string& w) {
  // "q=" then 0, 0.ddd, 1 or 1.000
  if (w.size() < 3 || w.compare(0, 2, "q=") != 0) {
    return false;
  }
  std::string v = w.substr(2);
  if (v[0] != '0' && v[0] != '1') {
    return false;
  }
  if (v.size() == 1) {
    return true;
  }
  if (v[1] != '.' || v.size() > 5) {
    return false;
  }
  for (size_t i = 2; i < v.size(); ++i) {
    if (!std::isdigit(static_cast<unsigned char>(v[i])) || (v[0] == '1' && v[i] != '0')) {
      return false;
    }
  }
  return true;
}

std::string Trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t");
  if (b == std::string::npos) {
    return "";
  }
  size_t e = s.find_last_not_of(" \t");
  return s.substr(b, e - b + 1);
}

}  // namespace

bool ParseLocaleHeader(const std::string& value, std::string* out) {
  std::string first;
  size_t pos = 0;
  bool any = false;
  while (pos <= value.size()) {
    size_t comma = value.find(',', pos);
    std::string item = value.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos);
    size_t semi = item.find(';');
    std::string range = Trim(item.substr(0, semi));
    if (!IsRange(range)) {
      return false;
    }
    if (semi != std::string::npos && !IsWeight(Trim(item.substr(semi + 1)))) {
      return false;
    }
    if (!any) {
      first = range;
      any = true;
    }
    if (comma == std::string::npos) {
      break;
    }
    pos = comma + 1;
  }
  for (char& c : first) {
    if (c == '-') {
      c = '_';
    }
  }
  *out = first;
  return any;
}

}  // namespace Lumen::L10n
