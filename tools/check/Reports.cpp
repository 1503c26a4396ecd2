#include "tools/check/Reports.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

namespace check {
namespace {

using Json = nlohmann::ordered_json;

std::string dump(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

/// Text fit for XML, in an attribute or between tags.
std::string xml(const std::string& text) {
  std::string escaped;
  for (const char character : text) {
    switch (character) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      default:
        // Nothing here is more than ASCII but perhaps a name, in whatever encoding.
        escaped += (character < 0x20 && character != '\n') || character > 0x7e ? '?' : character;
    }
  }
  return escaped;
}

std::string detailsOf(const Result& result, const char* indent) {
  std::string text = fmt::format("{0}sent      {1}\n{0}expected  {2}\n{0}came      {3}\n", indent,
                                 result.sent, result.which->expects, result.came);
  for (const std::string& note : result.notes) text += fmt::format("{}note      {}\n", indent, note);
  return text;
}

double seconds(int64_t ms) {
  return static_cast<double>(ms) / 1000;
}

}  // namespace

void Totals::add(Verdict verdict) {
  switch (verdict) {
    case Verdict::PASS:
      ++passed;
      break;
    case Verdict::NOTE:
      ++noted;
      break;
    case Verdict::FAIL:
      ++failed;
      break;
    case Verdict::SKIP:
      ++skipped;
      break;
  }
}

std::string textOf(const Result& result, bool brief, int nameWidth) {
  std::string text =
      fmt::format("{:3} {:{}} {}", result.number, result.which->name, nameWidth, verdictWord(result.verdict));
  if (result.verdict == Verdict::SKIP) return text + ": " + result.came + "\n";
  if (brief && result.verdict == Verdict::PASS) return text + "\n";
  return text + "\n" + detailsOf(result, "      ");
}

std::string textOf(const Totals& totals, int64_t tookMs, const char* what) {
  return fmt::format("{} {}: {} passed, {} passed with notes, {} failed, {} skipped, in {:.1f} s\n",
                     totals.passed + totals.noted + totals.failed + totals.skipped, what, totals.passed,
                     totals.noted, totals.failed, totals.skipped, seconds(tookMs));
}

std::string jsonOf(const Result& result) {
  return dump(Json{{"event", "case"},
                   {"number", result.number},
                   {"name", result.which->name},
                   {"verdict", result.verdict == Verdict::FAIL ? "fail" : verdictWord(result.verdict)},
                   {"sent", result.sent},
                   {"expected", result.which->expects},
                   {"came", result.came},
                   {"notes", result.notes},
                   {"tookMs", result.tookMs}});
}

std::string jsonOf(const Totals& totals, int64_t tookMs) {
  return dump(Json{{"event", "totals"},
                   {"passed", totals.passed},
                   {"notes", totals.noted},
                   {"failed", totals.failed},
                   {"skipped", totals.skipped},
                   {"tookMs", tookMs}});
}

std::string junitOf(const std::vector<Result>& results, const std::string& service, bool strict) {
  std::string cases;
  int failures = 0, skipped = 0;
  int64_t tookMs = 0;
  for (const Result& result : results) {
    const std::string name = result.which->name;
    cases += fmt::format("  <testcase classname=\"{}\" name=\"{}\" time=\"{:.3f}\">\n",
                         xml(name.substr(0, name.find('.'))), xml(name), seconds(result.tookMs));
    if (result.verdict == Verdict::FAIL || (strict && result.verdict == Verdict::NOTE)) {
      ++failures;
      const std::string& why = result.verdict == Verdict::FAIL ? result.came : result.notes[0];
      cases +=
          fmt::format("    <failure message=\"{}\">{}</failure>\n", xml(why), xml(detailsOf(result, "")));
    } else if (result.verdict == Verdict::SKIP) {
      ++skipped;
      cases += fmt::format("    <skipped message=\"{}\"/>\n", xml(result.came));
    } else {
      cases += fmt::format("    <system-out>{}</system-out>\n", xml(detailsOf(result, "")));
    }
    cases += "  </testcase>\n";
    tookMs += result.tookMs;
  }
  return fmt::format(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuite name=\"tarnbooster check {}\" tests=\"{}\" "
      "failures=\"{}\" skipped=\"{}\" time=\"{:.3f}\">\n{}</testsuite>\n",
      xml(service), results.size(), failures, skipped, seconds(tookMs), cases);
}

}  // namespace check
