#include "check/diagnostics.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <numeric>
#include <string_view>

#include "config/config_reader.h"
#include "listing/announcement.h"
#include "net/sflsock.h"
#include "text/names.h"
#include "util/number.h"
#include "util/sflstr.h"

namespace {

constexpr std::int32_t FIRST_FREE_PORT = 1024;
constexpr std::size_t MAX_QUOTED = 63;
constexpr std::size_t MAX_DIAGNOSTICS = 100;
constexpr std::size_t MAX_TEXT = 1 << 20;  // bytes; the lines of a larger file are not checked
constexpr std::string_view BLANKS = " \t\n\v\f\r";
constexpr std::string_view LINE_ENDS = "\r\n";
constexpr std::string_view UNESCAPED = "&+%";  // in the announce; a '#' cannot be part of a name
constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";

std::string_view trimmed(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(BLANKS);
  if (begin == text.npos) return {};
  return text.substr(begin, text.find_last_not_of(BLANKS) - begin + 1);
}

const ConfigKey* known_key(std::string_view text) {
  return find_key(std::string(text).c_str());
}

// The Levenshtein distance of two words, ignoring the case of letters.
std::size_t distance(std::string_view left, std::string_view right) {
  std::vector<std::size_t> row(right.size() + 1);
  std::iota(row.begin(), row.end(), 0);
  for (std::size_t i = 0; i < left.size(); ++i) {
    std::size_t diagonal = row[0]++;
    for (std::size_t j = 0; j < right.size(); ++j) {
      const bool is_equal = std::tolower(left[i]) == std::tolower(right[j]);
      const std::size_t changed = diagonal + (is_equal ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({changed, row[j] + 1, diagonal + 1});
    }
  }
  return row.back();
}

std::string nearest_key(std::string_view line) {
  // Cuts the word, because no key is so long; that limits the time.
  const std::string_view word = line.substr(0, KEY_WIDTH);
  const auto nearest = std::ranges::min_element(
      CONFIG_KEYS, {}, [word](const ConfigKey& key) { return distance(word, key.name); });
  const std::string_view name = nearest->name;
  return distance(word, name) <= name.size() / 2 ? "; did you mean \"" + std::string(name) + "\"?"
                                                 : "";
}

struct Reading {
  std::string text;  // the whole file
  std::vector<Diagnostic> diagnostics{};
  std::map<const ConfigKey*, std::size_t> lines{};  // the last line of each key
  const ConfigKey* previous_key = nullptr;          // null if unknown
  std::size_t counted_bytes = 0;                    // bytes of the text before `line`
  std::size_t line = 1;                             // from 1
  std::string server_name{};                        // the last valid value, not cut
};

// The bytes that the server read as a key, and as its value.
struct Step {
  std::size_t begin;  // of the key, in the file
  std::string_view key;
  std::string_view value;
  const ConfigKey* known;  // null when the key is unknown
  bool is_accepted;
};

// The number of the line at this offset. The offset must not decrease from call to call.
std::size_t line_at(Reading& reading, std::size_t offset) {
  const std::string& text = reading.text;
  for (std::size_t& i = reading.counted_bytes; i < offset; ++i) {
    if (text[i] == '\n' || (text[i] == '\r' && text[i + 1] != '\n')) ++reading.line;
  }
  return reading.line;
}

void add_diagnostic(Reading& reading, std::size_t offset, std::string text) {
  const std::size_t count = reading.diagnostics.size() + 1;
  if (count > MAX_DIAGNOSTICS) return;
  if (count == MAX_DIAGNOSTICS) text = "more lines are suspicious; correct these first";
  reading.diagnostics.push_back({line_at(reading, offset), std::move(text)});
}

bool is_line_end(char c) {
  return c == '\n' || c == '\r';
}

std::string_view first_line(std::string_view text) {
  return trimmed({text.begin(), std::ranges::find_if(text, is_line_end)});
}

// Looks back only over blanks, and not for the start of the line: one line may contain many keys.
bool begins_its_line(std::string_view text, std::size_t offset) {
  const std::size_t last = text.substr(0, offset).find_last_not_of(" \t\v\f");
  return last == text.npos || is_line_end(text[last]);
}

std::string key_problem(std::string_view key) {
  const std::string_view word = first_line(key);
  if (key.starts_with(BYTE_ORDER_MARK))
    return "the file begins with a byte-order mark; save it without one";
  if (word.starts_with(';') || word.starts_with("//")) return "a comment begins with #";
  if (word.starts_with('[')) return "there are no sections: " + quoted(word) + " is read as a key";
  if (key.find_first_of(LINE_ENDS) != key.npos) return "no = after " + quoted(word);
  const ConfigKey* known = known_key(word);
  if (known != nullptr) return std::string("remove the blank before the = of ") + known->name;
  return "unknown key " + quoted(word) + nearest_key(word);
}

// An unknown key extends to the next =, even on a later line, and its value becomes the beginning
// of the next key. So the server ignores the known keys that these contain.
void explain_unknown(Reading& reading, const Step& step) {
  if (begins_its_line(reading.text, step.begin)) {
    add_diagnostic(reading, step.begin, key_problem(step.key));
  } else if (reading.previous_key != nullptr) {
    add_diagnostic(reading, step.begin,
                   quoted(first_line(step.key)) + " after the number of " +
                       reading.previous_key->name +
                       " is read as a key; only a comment may follow the number");
  }
  const std::size_t line_end = step.key.find_last_of(LINE_ENDS);
  if (line_end == step.key.npos) return;
  const ConfigKey* lost = known_key(trimmed(step.key.substr(line_end + 1)));
  if (lost == nullptr) return;
  const std::size_t line = line_at(reading, step.begin);
  add_diagnostic(reading, step.begin + line_end + 1,
                 std::string(lost->name) + " is ignored: it is read as a part of line " +
                     std::to_string(line));
}

std::string value_of(const ConfigKey& key) {
  if (key.kind == Kind::TEXT) return quoted(static_cast<const char*>(key.field));
  if (key.kind == Kind::PORT) return static_cast<const char*>(key.field);
  if (key.kind == Kind::BOOLEAN) return number_in(key) != 0 ? "true" : "false";
  return std::to_string(number_in(key));
}

// Checks a TEXT. Its value ends at a '#' or at the end of the line.
void explain_text(Reading& reading, const Step& step) {
  const std::string_view line = first_line(step.value);
  const std::size_t hash = line.find('#');
  const std::string_view text = trimmed(line.substr(0, hash));
  if (step.is_accepted && quoted(text) != value_of(*step.known)) {
    add_diagnostic(reading, step.begin,
                   std::string(step.known->name) + " is cut to " + value_of(*step.known));
  }
  if (step.is_accepted && step.known->field == server_config.ServerName) reading.server_name = text;
  if (hash != line.npos && BLANKS.find(line.substr(hash + 1, 1)) == BLANKS.npos) {
    add_diagnostic(reading, step.begin,
                   "a # begins a comment, so " + quoted(line.substr(hash)) + " is not a part of " +
                       step.known->name);
  }
}

bool is_comment(std::string_view text) {
  return text.empty() || text.starts_with('#');
}

void explain_port(Reading& reading, const Step& step, std::string_view word) {
  const std::string port = value_of(*step.known);
  const std::int32_t number = text_to_int32(port.c_str());
  const std::optional<in_port_t> bound = port_to_bind(port.c_str(), "udp");
  if (port != word) add_diagnostic(reading, step.begin, "Port is cut to " + quoted(port));
  if (!bound) {
    add_diagnostic(reading, step.begin,
                   "Port " + quoted(port) + " is not a port number; use 1 to 65535");
  } else if (ntohs(*bound) != number) {
    add_diagnostic(reading, step.begin,
                   "Port " + port + " opens port " + std::to_string(ntohs(*bound)));
  } else if (number < FIRST_FREE_PORT) {
    add_diagnostic(reading, step.begin, "a port below 1024 needs a privilege; use a higher port");
  }
  if (std::to_string(number) != port) {
    add_diagnostic(reading, step.begin,
                   "the master server gets Port unchanged, as " + quoted(port));
  }
}

// Checks any other kind. Its value is the first word after the =, even on a later line.
void explain_word(Reading& reading, const Step& step) {
  const std::string name = step.known->name;
  const std::size_t begin = std::min(step.value.find_first_not_of(BLANKS), step.value.size());
  const std::string_view rest = first_line(step.value.substr(begin));
  const std::string_view word = rest.substr(0, rest.find_first_of(BLANKS));
  const std::string_view more = trimmed(rest.substr(word.size()));
  if (!rest.empty() && step.value.substr(0, begin).find_first_of(LINE_ENDS) != word.npos) {
    add_diagnostic(reading, step.begin,
                   name + " has no value on its line; " + quoted(word) + " is read as its value");
  }
  if (!step.is_accepted) return;
  if (step.known->kind == Kind::PORT) explain_port(reading, step, word);
  if (step.known->kind == Kind::NUMBER || step.known->kind == Kind::GAME_TYPE) {
    const std::size_t sign = word.find_first_of("+-") == 0 ? 1 : 0;
    const std::size_t end = word.find_first_not_of("0123456789", sign);
    if (end == sign || word.size() == sign) {
      add_diagnostic(
          reading, step.begin,
          name + " has no number; it gets " + value_of(*step.known) + " from an earlier line");
    } else if (end != word.npos && !is_comment(word.substr(end))) {
      add_diagnostic(reading, step.begin,
                     quoted(word.substr(end)) + " after " + name + " is ignored");
    }
  }
  if (!is_comment(more)) {
    add_diagnostic(reading, step.begin, quoted(more) + " after " + name + " is ignored");
  }
}

// Warns about a second key on a line: the server reads the next key directly after a NUMBER, and
// after the = of an unknown key.
void explain_position(Reading& reading, const Step& step) {
  if (begins_its_line(reading.text, step.begin)) return;
  const ConfigKey* before = reading.previous_key;
  add_diagnostic(
      reading, step.begin,
      std::string(step.known->name) + " follows " +
          (before != nullptr ? std::string("the number of ") + before->name : "an unknown key") +
          " on the same line and is read as a setting; put each setting on its own line");
}

void explain(Reading& reading, const Step& step) {
  if (step.known == nullptr) return explain_unknown(reading, step);
  explain_position(reading, step);
  if (!step.is_accepted) {
    const std::size_t value = std::min(step.begin + step.key.size() + 1, reading.text.size());
    add_diagnostic(reading, step.begin,
                   std::string(step.known->name) + " cannot be " +
                       quoted(first_line(std::string_view(reading.text).substr(value))) +
                       "; it stays " + value_of(*step.known));
  }
  step.known->kind == Kind::TEXT ? explain_text(reading, step) : explain_word(reading, step);
  if (!step.is_accepted) return;
  std::size_t& line = reading.lines[step.known];
  if (line != 0) {
    add_diagnostic(reading, step.begin,
                   std::string(step.known->name) + " is set again; line " + std::to_string(line) +
                       " is ignored");
  }
  line = line_at(reading, step.begin);
}

// The name that a server list shows, after the announce has passed through the list's reader.
std::string listed_name() {
  std::string name = server_config.ServerName;
  std::ranges::replace(name, ' ', '+');
  const auto announcement = read_announcement("name=" + name + "&p=0&mp=2&gt=0&port=1&v=40");
  return announcement ? announcement->name : "";
}

// Call this at the end of the file, when AnnounceServer and ServerName have their final values.
void explain_announced_name(Reading& reading) {
  const std::string& name = reading.server_name;
  if (server_config.AnnounceServer == 0 || name.empty()) return;
  const std::string listed = listed_name();
  const bool is_same = listed == printable(name);
  if (is_same && name.find_first_of(UNESCAPED) == name.npos) return;
  const std::string effect = is_same ? "a server list may show ServerName in another way"
                                     : "a server list shows ServerName as " + quoted(listed);
  const std::size_t line = reading.lines[find_key("ServerName")];
  const auto next = std::ranges::upper_bound(reading.diagnostics, line, {}, &Diagnostic::line);
  reading.diagnostics.insert(next, {line, effect + "; avoid & + % and more than 31 bytes"});
}

// Reads at most one byte more than MAX_TEXT.
std::string read_text(std::FILE* file) {
  std::string text(MAX_TEXT + 1, '\0');
  text.resize(std::fread(text.data(), 1, text.size(), file));
  std::rewind(file);
  return text;
}

Step last_step(const Reading& reading, const ConfigReader& reader) {
  const auto begin = static_cast<std::size_t>(reader.key_offset);
  const auto end = static_cast<std::size_t>(std::ftell(reader.file));
  const std::string_view all = std::string_view(reading.text).substr(begin, end - begin);
  const std::size_t sign = std::min(all.find('='), all.size());
  return {.begin = begin,
          .key = all.substr(0, sign),
          .value = all.substr(std::min(sign + 1, all.size())),
          .known = reader.known,
          .is_accepted = reader.is_accepted};
}

void print_nothing(const char* /*format*/, ...) {}

}  // namespace

std::string quoted(std::string_view text) {
  std::string shown = "\"";
  shown.append(text.substr(0, MAX_QUOTED)).append("\"");
  if (text.size() > MAX_QUOTED) shown += "...";
  const auto is_control = [](unsigned char c) { return std::iscntrl(c) != 0; };
  std::ranges::replace_if(shown, is_control, '?');
  return shown;
}

std::vector<Diagnostic> read_with_diagnostics(std::FILE* file) {
  Reading reading{.text = read_text(file)};
  ConfigReader reader{.file = file, .print = print_nothing};
  if (reading.text.size() > MAX_TEXT) {
    while (read_setting(reader)) {
    }
    return {{1, "the file is larger than 1 MiB; its lines are not checked"}};
  }
  while (read_setting(reader)) {
    if (reading.diagnostics.size() == MAX_DIAGNOSTICS) continue;  // still reads the settings
    const Step step = last_step(reading, reader);
    explain(reading, step);
    reading.previous_key = step.known;
  }
  if (reading.diagnostics.size() < MAX_DIAGNOSTICS) explain_announced_name(reading);
  return reading.diagnostics;
}
