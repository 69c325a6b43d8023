// Argument parsing and number conversion for the qor tool.
#include <qor/qor_exception.h>

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "qor_tool.h"

namespace qortool {

void fail(const std::string& message) { throw Failure{1, message}; }
void usage(const std::string& message) { throw Failure{2, message}; }
void note(const std::string& message) { std::fprintf(stderr, "qor: %s\n", message.c_str()); }

std::string replaceAll(std::string text, const std::string& from, const std::string& to) {
  if (from.empty()) return text;
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
  return text;
}

std::string exceptionText(void* pointer) {
  qorException* e = static_cast<qorException*>(pointer);
  std::string text = e->what();
  delete e;
  const size_t unit = text.find(" [file ");
  if (unit != std::string::npos) text.erase(unit);
  for (char& c : text)
    if (c == '\n') c = ' ';
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

std::string Args::get(const std::string& name, const std::string& fallback) const {
  auto it = options.find(name);
  return it == options.end() ? fallback : it->second;
}

// The entry of list that accepts name ("-c|--stdout" accepts -c and
// --stdout), recorded under its first spelling; "" when none does.
static std::string listed(const std::vector<std::string>& list, const std::string& name) {
  for (const std::string& entry : list)
    for (size_t at = 0; at <= entry.size();) {
      size_t bar = entry.find('|', at);
      if (bar == std::string::npos) bar = entry.size();
      if (entry.compare(at, bar - at, name) == 0) return entry.substr(0, entry.find('|'));
      at = bar + 1;
    }
  return "";
}

Args parseArgs(const std::string& command, int argc, char** argv, const std::vector<std::string>& valued,
               const std::vector<std::string>& flags) {
  Args args;
  args.command = command;
  bool optionsEnded = false;
  for (int i = 0; i < argc; ++i) {
    std::string a = argv[i];
    if (optionsEnded || a == "-" || a.size() < 2 || a[0] != '-' || std::isdigit(static_cast<unsigned char>(a[1])) ||
        a[1] == '.') {
      args.positional.push_back(a);
    } else if (a == "--") {
      optionsEnded = true;
    } else if (a[1] != '-' && a.size() > 2 && listed(flags, a.substr(0, 2)) != "") {
      // Single-letter flags joined after one dash: -cf is -c -f.
      for (size_t k = 1; k < a.size(); ++k) {
        const std::string flag = listed(flags, std::string("-") + a[k]);
        if (flag.empty()) usage(command + ": unknown option '-" + a[k] + "' in '" + a + "'");
        args.options[flag] = "";
      }
    } else {
      std::string value;
      const size_t eq = a.find('=');
      const bool inlineValue = eq != std::string::npos && a.compare(0, 2, "--") == 0;
      if (inlineValue) {
        value = a.substr(eq + 1);
        a.erase(eq);
      }
      if (const std::string option = listed(valued, a); !option.empty()) {
        if (!inlineValue) {
          if (i + 1 >= argc) usage(command + ": option " + a + " needs a value");
          value = argv[++i];
        }
        args.options[option] = value;
      } else if (const std::string flag = listed(flags, a); !flag.empty() && !inlineValue) {
        args.options[flag] = "";
      } else {
        usage(command + ": unknown option '" + a + "'");
      }
    }
  }
  return args;
}

double parseNumber(const std::string& text, const std::string& what) {
  errno = 0;
  char* end = nullptr;
  const double v = std::strtod(text.c_str(), &end);
  if (text.empty() || end != text.c_str() + text.size() || errno == ERANGE || !std::isfinite(v))
    usage(what + ": '" + text + "' is not a number");
  return v;
}

long parseCount(const std::string& text, const std::string& what, long low, long high) {
  errno = 0;
  char* end = nullptr;
  const long v = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || end != text.c_str() + text.size() || errno == ERANGE || v < low || v > high)
    usage(what + ": '" + text + "' is not a whole number from " + std::to_string(low) + " to " + std::to_string(high));
  return v;
}

}  // namespace qortool
