#include "tools/reports/DigestReport.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <ostream>
#include <sstream>
#include <string_view>

#include "text/Escape.h"
#include "tools/Failure.h"
#include "tools/files/InputFile.h"
#include "tools/reports/FormatText.h"

namespace mlnn {
namespace {

using Json = nlohmann::ordered_json;

// What a print begins with. The number is kDigestVersion.
constexpr char kTitle[] = "mlnn digest 1";
static_assert(kDigestVersion == 1);
constexpr char kFormatName[] = "format";

[[noreturn]] void failToParse(const std::string& fileName) {
  throw Failure(inputName(fileName) + " is no print of digests: it does not begin with " +
                inQuotes(kTitle) + ", and is no JSON from this command with --digest");
}

ModelFormat formatFrom(const std::string& word, const std::string& fileName) {
  if (word == kTextFormatWord) return ModelFormat::kText;
  if (word == kBinaryFormatWord) return ModelFormat::kBinary;
  throw Failure(inputName(fileName) + " tells digests of an unknown format, " + inQuotes(word));
}

// "NAME   WORD", where the name may have blanks.
DigestSection parseLine(const std::string& line, const std::string& fileName) {
  const std::size_t blank = line.rfind(' ');
  const std::size_t end = line.find_last_not_of(' ', blank);
  if (blank == std::string::npos || end == std::string::npos || blank + 1 == line.size()) {
    throw Failure(inputName(fileName) + " has a line that is no digest: " + inQuotes(line));
  }
  return {line.substr(0, end + 1), line.substr(blank + 1)};
}

ModelDigest parseText(const std::string& text, const std::string& fileName) {
  std::istringstream in(text);
  std::string line;
  if (!std::getline(in, line) || line != kTitle) failToParse(fileName);
  ModelDigest digest;
  if (!std::getline(in, line)) failToParse(fileName);
  const DigestSection format = parseLine(line, fileName);
  if (format.name != kFormatName) failToParse(fileName);
  digest.format = formatFrom(format.digest, fileName);
  while (std::getline(in, line)) digest.sections.push_back(parseLine(line, fileName));
  return digest;
}

// The document; one whose values nest deeper than any print's is refused. Copies of a value, which
// its parser makes as well, call themselves for each level.
Json documentIn(const std::string& text, const std::string& fileName) {
  constexpr int kMaxDepth = 32;
  return Json::parse(text, [&fileName](int depth, Json::parse_event_t, const Json&) {
    if (depth > kMaxDepth) failToParse(fileName);
    return true;
  });
}

ModelDigest parseJson(const std::string& text, const std::string& fileName) {
  ModelDigest digest;
  try {
    const Json json = documentIn(text, fileName).at("digest");
    if (json.at("version") != kDigestVersion) failToParse(fileName);
    digest.format = formatFrom(json.at(kFormatName).get<std::string>(), fileName);
    for (const auto& [name, value] : json.at("sections").items()) {
      digest.sections.push_back({name, value.get<std::string>()});
    }
  } catch (const Json::exception&) {
    failToParse(fileName);
  }
  return digest;
}

}  // namespace

void printDigest(const ModelDigest& digest, std::ostream& out) {
  std::size_t width = std::string_view(kFormatName).size();
  for (const DigestSection& section : digest.sections) width = std::max(width, section.name.size());
  const auto line = [width, &out](const std::string& name, const std::string& word) {
    out << name << std::string(width + 2 - name.size(), ' ') << word << "\n";
  };
  out << kTitle << "\n";
  line(kFormatName, formatWord(digest.format));
  for (const DigestSection& section : digest.sections) line(section.name, section.digest);
}

Json jsonOf(const ModelDigest& digest) {
  Json sections = Json::object();
  for (const DigestSection& section : digest.sections) sections[section.name] = section.digest;
  return {{"version", kDigestVersion},
          {kFormatName, formatWord(digest.format)},
          {"sections", sections}};
}

ModelDigest parseDigest(const std::string& text, const std::string& fileName) {
  return text.compare(0, 1, "{") == 0 ? parseJson(text, fileName) : parseText(text, fileName);
}

}  // namespace mlnn
