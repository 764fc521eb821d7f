#include "check/doubts.h"

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
constexpr std::size_t MAX_DOUBTS = 100;
constexpr std::size_t MAX_TEXT = 1 << 20;  // bytes; a larger file is not explained
constexpr std::string_view BLANKS = " \t\n\v\f\r";
constexpr std::string_view LINE_ENDS = "\r\n";
constexpr std::string_view UNESCAPED = "&+%";  // of the announce; a name cannot have a '#'
constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";

std::string_view trimmed(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(BLANKS);
  if (begin == text.npos) return {};
  return text.substr(begin, text.find_last_not_of(BLANKS) - begin + 1);
}

const ConfigKey* known_key(std::string_view text) {
  return find_key(std::string(text).c_str());
}

// The number of letters to insert, delete or replace to turn one word into the other.
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
  // A longer word is not close to any key.
  const std::string_view word = line.substr(0, KEY_WIDTH);
  const auto nearest = std::ranges::min_element(
      CONFIG_KEYS, {}, [word](const ConfigKey& key) { return distance(word, key.name); });
  const std::string_view name = nearest->name;
  return distance(word, name) <= name.size() / 2 ? "; is it " + std::string(name) + "?" : "";
}

struct Reading {
  std::string text;  // the whole file
  std::vector<Doubt> doubts{};
  std::map<const ConfigKey*, std::size_t> lines{};  // the last line of each key
  const ConfigKey* key_before = nullptr;            // null if that key is unknown
  std::size_t counted = 0;                          // bytes whose lines are counted
  std::size_t line = 1;                             // the line after those bytes
  std::string server_name{};                        // in force, and not cut
};

// A key and its value, as far as the server read each.
struct Step {
  std::size_t begin;  // of the key, in the file
  std::string_view key;
  std::string_view value;
  const ConfigKey* known;  // null when the key is unknown
  bool is_accepted;
};

// Call with offsets that do not decrease.
std::size_t line_at(Reading& reading, std::size_t offset) {
  const std::string& text = reading.text;
  for (std::size_t& i = reading.counted; i < offset; ++i) {
    if (text[i] == '\n' || (text[i] == '\r' && text[i + 1] != '\n')) ++reading.line;
  }
  return reading.line;
}

void doubt(Reading& reading, std::size_t offset, std::string text) {
  const std::size_t count = reading.doubts.size() + 1;
  if (count > MAX_DOUBTS) return;
  if (count == MAX_DOUBTS) text = "more lines are suspicious; correct these first";
  reading.doubts.push_back({line_at(reading, offset), std::move(text)});
}

bool is_line_end(char c) {
  return c == '\n' || c == '\r';
}

std::string_view first_line(std::string_view text) {
  return trimmed({text.begin(), std::ranges::find_if(text, is_line_end)});
}

// Looks back only over blanks, because one line may have most keys of a file.
bool begins_its_line(std::string_view text, std::size_t offset) {
  const std::size_t last = text.substr(0, offset).find_last_not_of(" \t\v\f");
  return last == text.npos || is_line_end(text[last]);
}

std::string what_is_wrong_with(std::string_view key) {
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

// An unknown key extends to the next =, and its value becomes the beginning of another key. So the
// server loses the keys that follow it.
void explain_unknown(Reading& reading, const Step& step) {
  if (begins_its_line(reading.text, step.begin)) {
    doubt(reading, step.begin, what_is_wrong_with(step.key));
  } else if (reading.key_before != nullptr) {
    doubt(reading, step.begin,
          quoted(first_line(step.key)) + " after the number of " + reading.key_before->name +
              " is read as a key; only a comment may follow the number");
  }
  const std::size_t line_end = step.key.find_last_of(LINE_ENDS);
  if (line_end == step.key.npos) return;
  const ConfigKey* lost = known_key(trimmed(step.key.substr(line_end + 1)));
  if (lost == nullptr) return;
  const std::size_t line = line_at(reading, step.begin);
  doubt(reading, step.begin + line_end + 1,
        std::string(lost->name) + " is ignored: it is read as a part of line " +
            std::to_string(line));
}

std::string value_of(const ConfigKey& key) {
  if (key.kind == Kind::TEXT) return quoted(static_cast<const char*>(key.field));
  if (key.kind == Kind::PORT) return static_cast<const char*>(key.field);
  if (key.kind == Kind::BOOLEAN) return number_in(key) != 0 ? "true" : "false";
  return std::to_string(number_in(key));
}

// A text ends at a '#' or at the end of its line.
void explain_text(Reading& reading, const Step& step) {
  const std::string_view line = first_line(step.value);
  const std::size_t hash = line.find('#');
  const std::string_view text = trimmed(line.substr(0, hash));
  if (step.is_accepted && quoted(text) != value_of(*step.known)) {
    doubt(reading, step.begin,
          std::string(step.known->name) + " is cut to " + value_of(*step.known));
  }
  if (step.is_accepted && step.known->field == server_config.ServerName) reading.server_name = text;
  if (hash != line.npos && BLANKS.find(line.substr(hash + 1, 1)) == BLANKS.npos) {
    doubt(reading, step.begin,
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
  if (port != word) doubt(reading, step.begin, "Port is cut to " + quoted(port));
  if (!bound) {
    doubt(reading, step.begin, "Port " + quoted(port) + " is no port number");
  } else if (ntohs(*bound) != number) {
    doubt(reading, step.begin, "Port " + port + " opens port " + std::to_string(ntohs(*bound)));
  } else if (number < FIRST_FREE_PORT) {
    doubt(reading, step.begin, "a service may not open a port below 1024");
  }
  if (std::to_string(number) != port) {
    doubt(reading, step.begin, "the master server gets Port unchanged, as " + quoted(port));
  }
}

// The value is the first word after the =, also on a later line.
void explain_word(Reading& reading, const Step& step) {
  const std::string name = step.known->name;
  const std::size_t begin = std::min(step.value.find_first_not_of(BLANKS), step.value.size());
  const std::string_view rest = first_line(step.value.substr(begin));
  const std::string_view word = rest.substr(0, rest.find_first_of(BLANKS));
  const std::string_view more = trimmed(rest.substr(word.size()));
  if (!rest.empty() && step.value.substr(0, begin).find_first_of(LINE_ENDS) != word.npos) {
    doubt(reading, step.begin,
          name + " has no value on its line; " + quoted(word) + " is read as its value");
  }
  if (!step.is_accepted) return;
  if (step.known->kind == Kind::PORT) explain_port(reading, step, word);
  if (step.known->kind == Kind::NUMBER || step.known->kind == Kind::GAME_TYPE) {
    const std::size_t sign = word.find_first_of("+-") == 0 ? 1 : 0;
    const std::size_t end = word.find_first_not_of("0123456789", sign);
    if (end == sign || word.size() == sign) {
      doubt(reading, step.begin,
            name + " has no number; it gets " + value_of(*step.known) + " from an earlier line");
    } else if (end != word.npos && !is_comment(word.substr(end))) {
      doubt(reading, step.begin, quoted(word.substr(end)) + " after " + name + " is ignored");
    }
  }
  if (!is_comment(more)) {
    doubt(reading, step.begin, quoted(more) + " after " + name + " is ignored");
  }
}

// The server continues directly after a NUMBER, and after the = of an unknown key.
void explain_place(Reading& reading, const Step& step) {
  if (begins_its_line(reading.text, step.begin)) return;
  const ConfigKey* before = reading.key_before;
  doubt(reading, step.begin,
        std::string(step.known->name) + " follows " +
            (before != nullptr ? std::string("the number of ") + before->name : "an unknown key") +
            " on the same line and is read as a setting; put each setting on its own line");
}

void explain(Reading& reading, const Step& step) {
  if (step.known == nullptr) return explain_unknown(reading, step);
  explain_place(reading, step);
  if (!step.is_accepted) {
    const std::size_t value = std::min(step.begin + step.key.size() + 1, reading.text.size());
    doubt(reading, step.begin,
          std::string(step.known->name) + " cannot be " +
              quoted(first_line(std::string_view(reading.text).substr(value))) + "; it stays " +
              value_of(*step.known));
  }
  step.known->kind == Kind::TEXT ? explain_text(reading, step) : explain_word(reading, step);
  if (!step.is_accepted) return;
  std::size_t& line = reading.lines[step.known];
  if (line != 0) {
    doubt(reading, step.begin,
          std::string(step.known->name) + " again; line " + std::to_string(line) + " is ignored");
  }
  line = line_at(reading, step.begin);
}

// The name on a server list, from the announce that the server will send.
std::string listed_name() {
  std::string name = server_config.ServerName;
  std::ranges::replace(name, ' ', '+');
  const auto announcement = read_announcement("name=" + name + "&p=0&mp=2&gt=0&port=1&v=40");
  return announcement ? announcement->name : "";
}

// Which settings are announced is known only at the end of the file.
void explain_announced_name(Reading& reading) {
  const std::string& name = reading.server_name;
  if (server_config.AnnounceServer == 0 || name.empty()) return;
  const std::string listed = listed_name();
  const bool is_same = listed == printable(name);
  if (is_same && name.find_first_of(UNESCAPED) == name.npos) return;
  const std::string effect = is_same ? "a server list may show ServerName in another way"
                                     : "a server list shows ServerName as " + quoted(listed);
  const std::size_t line = reading.lines[find_key("ServerName")];
  const auto next = std::ranges::upper_bound(reading.doubts, line, {}, &Doubt::line);
  reading.doubts.insert(next, {line, effect + "; avoid & + % and more than 31 bytes"});
}

// Reads at most one byte more than MAX_TEXT.
std::string text_of(std::FILE* file) {
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

std::vector<Doubt> read_with_doubts(std::FILE* file) {
  Reading reading{.text = text_of(file)};
  ConfigReader reader{.file = file, .print = print_nothing};
  if (reading.text.size() > MAX_TEXT) {
    while (read_setting(reader)) {
    }
    return {{1, "the file is too large to be explained"}};
  }
  while (read_setting(reader)) {
    if (reading.doubts.size() == MAX_DOUBTS) continue;  // the settings still count
    const Step step = last_step(reading, reader);
    explain(reading, step);
    reading.key_before = step.known;
  }
  if (reading.doubts.size() < MAX_DOUBTS) explain_announced_name(reading);
  return reading.doubts;
}
