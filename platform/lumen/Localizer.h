// The framework's localizer: message templates by id for one locale, and the
// placeholder filling shared by every locale.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/lumen/Message.h"

namespace Lumen::L10n {

namespace LocalizableMessageHelpers {

// formatMessage fills the "{name}" placeholders of |text|: the n-th distinct
// placeholder name takes args[n]. Placeholders without an argument and
// unbalanced braces are left as they are.
std::string formatMessage(const std::string& text, const std::vector<std::string>& args);

}  // namespace LocalizableMessageHelpers

class Localizer {
 public:
  // TemplateSource returns the template text for a message id.
  using TemplateSource = std::function<std::string(const std::string& id)>;

  Localizer(std::string locale, TemplateSource source);

  // Format returns the message's text with its placeholders filled. Only one
  // locale's texts exist, so |locale| selects nothing yet; the template comes
  // from the source, or from the message itself when the source has none.
  std::string Format(const LocalizableMessage& message, const std::string& locale = "") const;

 private:
  std::string locale_;
  TemplateSource source_;
};

namespace LocalizerHelpers {

// The process's default localizer; null until one is set.
std::shared_ptr<Localizer> GetDefaultLocalizer();
void SetDefaultLocalizer(std::shared_ptr<Localizer> localizer);

}  // namespace LocalizerHelpers

// ParseLocaleHeader checks an "accept-language" or "lumen-ctx-format-locale"
// value: a comma-separated list of language ranges ("en", "en-US", "en_US",
// "*"), each optionally with ";q=<weight>". On success it returns true and the
// first range in |out|, with '-' written as '_'.
bool ParseLocaleHeader(const std::string& value, std::string* out);

}  // namespace Lumen::L10n
