// sfber: checks and prints BER data with the library's BER codec.
//
//   sfber check FILE...        validates each file as one BER stretch
//   sfber dump FILE [PATH]     prints the items as an indented tree
//
// The codec's default options apply (largest item 65535, depth 1024, as for a
// site that sets neither "proxy.*.maxlength" nor "sf.ber.maxdepth");
// --max-length and --max-depth override them. Exit status: 0 all valid, 1 some input invalid, 2
// usage or I/O error.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "sf/sflib.h"

using sfber::SfBerComponent;

namespace {

const char kUsage[] =
    "usage: sfber [options] check FILE...\n"
    "       sfber [options] dump FILE [PATH]\n"
    "\n"
    "  check   validate each FILE as one BER stretch; prints 'FILE: valid' or\n"
    "          'FILE: invalid: ERROR at offset N' with the reason\n"
    "  dump    print the items of FILE as an indented tree: offset, header\n"
    "          length, length, identifier and a short rendering of the value.\n"
    "          PATH (item numbers from 1, dotted, such as 1.1.6) selects one\n"
    "          item to print with what it contains. An invalid FILE is\n"
    "          reported, then printed as far as it can be read\n"
    "  FILE '-' is standard input\n"
    "\n"
    "options:\n"
    "  --max-length N   largest item length accepted (below 1: no limit;\n"
    "                   default 65535, key proxy.*.maxlength)\n"
    "  --max-depth N    deepest nesting accepted, 1 or more (default 1024, key\n"
    "                   sf.ber.maxdepth)\n"
    "  -h, --help       print this help\n"
    "\n"
    "exit status: 0 all valid, 1 some input invalid, 2 usage or I/O error\n";

// The last rejection the codec logged at its error level.
std::string g_reason;
int g_errorLevel;

void keepReason(std::uint32_t, std::uint32_t, std::uint32_t level, const char*, std::uint32_t,
                std::uint32_t, const char* msg, int, const char*, int) {
  if (static_cast<int>(level) == g_errorLevel) g_reason = msg;
}

const char* errorName(int code) {
  switch (code) {
    case sf::Ber::NO_BER_DEFINED:
      return "NO_BER_DEFINED";
    case sf::Ber::BER_NOT_VALIDATED:
      return "BER_NOT_VALIDATED";
    case sf::Ber::INVALID_LENGTH:
      return "INVALID_LENGTH";
    case sf::Ber::INVALID_TYPE:
      return "INVALID_TYPE";
    case sf::Ber::INVALID_INDEX:
      return "INVALID_INDEX";
    case sf::Ber::INTEGER_OUT_OF_BOUNDS:
      return "INTEGER_OUT_OF_BOUNDS";
    case sf::Ber::LENGTH_OUT_OF_BOUNDS:
      return "LENGTH_OUT_OF_BOUNDS";
    case sf::Ber::TAG_OUT_OF_BOUNDS:
      return "TAG_OUT_OF_BOUNDS";
    case sf::Ber::INSUFFICENT_DATA:
      return "INSUFFICENT_DATA";
    case sf::Ber::TOO_DEEP:
      return "TOO_DEEP";
  }
  return "UNKNOWN";
}

const char* const kUniversalNames[31] = {"END-OF-CONTENTS",
                                         "BOOLEAN",
                                         "INTEGER",
                                         "BIT STRING",
                                         "OCTET STRING",
                                         "NULL",
                                         "OBJECT IDENTIFIER",
                                         "ObjectDescriptor",
                                         "EXTERNAL",
                                         "REAL",
                                         "ENUMERATED",
                                         "EMBEDDED PDV",
                                         "UTF8String",
                                         "RELATIVE-OID",
                                         "TIME",
                                         "UNIVERSAL 15",
                                         "SEQUENCE",
                                         "SET",
                                         "NumericString",
                                         "PrintableString",
                                         "TeletexString",
                                         "VideotexString",
                                         "IA5String",
                                         "UTCTime",
                                         "GeneralizedTime",
                                         "GraphicString",
                                         "VisibleString",
                                         "GeneralString",
                                         "UniversalString",
                                         "CHARACTER STRING",
                                         "BMPString"};

std::string describe(int ident) {
  const int cls = ident & 0xC0;
  const int tagNo = ident & 0x1F;
  const bool constructed = (ident & 0x20) != 0;
  static const char* const classNames[4] = {"universal", "application", "context", "private"};
  std::string name;
  if (cls == 0) {
    name = kUniversalNames[tagNo];
  } else if (cls == 0x80) {
    name = "[" + std::to_string(tagNo) + "]";
  } else {
    name = std::string("[") + (cls == 0x40 ? "APPLICATION " : "PRIVATE ") + std::to_string(tagNo) +
           "]";
  }
  name += std::string(" (") + classNames[cls >> 6] + " " + std::to_string(tagNo) +
          (constructed ? ", constructed)" : ")");
  return name;
}

const size_t kShown = 48;  // octets rendered at most

std::string hex(const unsigned char* p, size_t n) {
  std::string out;
  char two[3];
  for (size_t i = 0; i < n && i < kShown; ++i) {
    snprintf(two, sizeof two, "%02x", p[i]);
    out += two;
  }
  if (n > kShown) out += "...";
  return out;
}

bool printable(const std::string& s) {
  for (unsigned char c : s)
    if (c < 0x20 || c > 0x7E) return false;
  return true;
}

// Text with anything outside printable ASCII escaped as \xHH.
std::string text(const std::string& s) {
  std::string out = "'";
  char esc[5];
  for (size_t i = 0; i < s.size() && i < kShown; ++i) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    if (c >= 0x20 && c <= 0x7E && c != '\\') {
      out += static_cast<char>(c);
    } else {
      snprintf(esc, sizeof esc, "\\x%02x", c);
      out += esc;
    }
  }
  out += s.size() > kShown ? "'..." : "'";
  return out;
}

// Short rendering of the primitive item under comp's cursor.
std::string render(SfBerComponent& comp, int ident, const unsigned char* content, size_t len) {
  const int cls = ident & 0xC0;
  const int tagNo = ident & 0x1F;
  try {
    if (cls == 0) {
      switch (tagNo) {
        case 1:
          return len == 1 ? (content[0] ? "TRUE" : "FALSE") : hex(content, len);
        case 2:
        case 10:
          return len <= 4 ? std::to_string(comp.GetInteger()) : hex(content, len);
        case 5:
          return "";
        case 6:
          return comp.GetObjectIdent();
        case 3: {
          sf::Buffer bits;
          unsigned unused = comp.GetBitString(bits);
          return "unused " + std::to_string(unused) + ": " +
                 hex(reinterpret_cast<const unsigned char*>(bits.data), bits.size());
        }
        case 4:
        case 7:
        case 12:
        case 18:
        case 19:
        case 20:
        case 21:
        case 22:
        case 23:
        case 24:
        case 25:
        case 26:
        case 27: {
          std::string s = comp.GetOctetString();
          return tagNo == 4 && !printable(s) ? hex(content, len) : text(s);
        }
        default:
          return hex(content, len);
      }
    }
    std::string s = comp.GetOctetString();
    return printable(s) && !s.empty() ? text(s) : hex(content, len);
  } catch (const sf::Xber&) {
    return hex(content, len);
  }
}

// Prints the item under comp's cursor. Returns true when the item is cut
// short (the last of its level); *inner receives a component over the
// content of a constructed item whose items are to be printed next.
bool dumpItem(SfBerComponent& comp, int depth, std::vector<SfBerComponent>* inner) {
  const unsigned offset = comp.GetItemOffset();
  unsigned pos;
  size_t len;
  int ident;
  bool truncated = false;
  try {
    ident = comp.GetItemHeader(&pos, &len);
  } catch (const sf::Xber& x) {
    // Content cut short (a partial file): show the header and what is there.
    if (x.GetError() != sf::Ber::INSUFFICENT_DATA) throw;
    pos = offset;
    ident = comp.GetValueTag(&pos);
    const size_t declared = comp.GetValueLength(&pos);
    size_t end = comp.GetStart() + comp.GetLength();
    if (end > comp.GetPDU()->size()) end = comp.GetPDU()->size();
    const size_t present = end > pos ? end - pos : 0;
    if (static_cast<std::int64_t>(declared) < 0 || present >= declared) throw;
    printf("%7u %3u %6zu  %*s%s <truncated: %zu octets present>\n", offset, pos - offset, declared,
           2 * depth, "", describe(ident).c_str(), present);
    len = present;
    truncated = true;
  }
  const unsigned char* content = reinterpret_cast<const unsigned char*>(comp.GetPDU()->data) + pos;
  std::string line = describe(ident);
  if (truncated) {
    if (!(ident & 0x20)) return true;
  } else if (!(ident & 0x20)) {
    std::string value = render(comp, ident, content, len);
    if (!value.empty()) line += ": " + value;
  }
  if (!truncated)
    printf("%7u %3u %6zu  %*s%s\n", offset, pos - offset, len, 2 * depth, "", line.c_str());
  if (!(ident & 0x20) || len == 0) return truncated;
  if (depth + 2 > comp.GetMaxDepth()) {
    printf("%7s %3s %6s  %*s<deeper items not shown: depth limit>\n", "", "", "", 2 * depth + 2,
           "");
    return truncated;
  }
  inner->emplace_back(comp.GetPDU(), pos, len);
  inner->back().CopySettings(comp);
  return truncated;
}

// Prints the items of comp, and of everything they contain, at depth and
// below. The levels being printed are kept in a vector rather than on the
// stack, so any depth limit is safe. On data that breaks the rules (the
// dump of an invalid file) a level stops at the first item that cannot be
// read, and its enclosing level goes on.
void dumpItems(const SfBerComponent& comp, int depth) {
  struct Level {
    SfBerComponent comp;
    bool started;  // its first item has been printed
    bool ended;    // its last item was cut short
  };
  std::vector<Level> levels{{comp, false, false}};
  std::vector<SfBerComponent> inner;
  while (!levels.empty()) {
    Level& level = levels.back();
    const int d = depth + static_cast<int>(levels.size()) - 1;
    try {
      if (!level.started) {
        level.started = true;
        if (level.comp.GetLength() == 0) {
          levels.pop_back();
          continue;
        }
        level.comp.FirstItem();
      } else if (level.ended || level.comp.NextItem(1) == 0) {
        levels.pop_back();
        continue;
      }
      level.ended = dumpItem(level.comp, d, &inner);
    } catch (const sf::Xber& x) {
      printf("%7s %3s %6s  %*s<stops: %s>\n", "", "", "", 2 * d, "", errorName(x.GetError()));
      levels.pop_back();
      continue;
    }
    if (!inner.empty()) {
      levels.push_back({inner.back(), false, false});
      inner.clear();
    }
  }
}

bool readFile(const char* name, sf::Buffer& out) {
  const bool standardInput = strcmp(name, "-") == 0;
  FILE* f = standardInput ? stdin : fopen(name, "rb");
  if (!f) {
    fprintf(stderr, "sfber: %s: %s\n", name, strerror(errno));
    return false;
  }
  char chunk[65536];
  size_t n;
  bool ok = true;
  try {
    while ((n = fread(chunk, 1, sizeof chunk, f)) > 0) out.append(chunk, n);
  } catch (const sf::X& x) {
    fprintf(stderr, "sfber: %s: cannot hold the file (%s)\n", name, x.str().c_str());
    ok = false;
  }
  if (ferror(f)) {
    fprintf(stderr, "sfber: %s: read error\n", name);
    ok = false;
  }
  if (!standardInput) fclose(f);
  return ok;
}

// Validates; on failure prints the verdict line and returns false.
bool validate(const char* name, SfBerComponent& comp, FILE* verdictOut) {
  g_reason.clear();
  try {
    comp.ValidateStructure();
    return true;
  } catch (const sf::Xber& x) {
    fprintf(verdictOut, "%s: invalid: %s at offset %u", name, errorName(x.GetError()),
            comp.GetErrorOffset());
    if (!g_reason.empty()) fprintf(verdictOut, " (%s)", g_reason.c_str());
    fputc('\n', verdictOut);
  } catch (const sf::X& x) {
    fprintf(verdictOut, "%s: invalid: %s\n", name, x.str().c_str());
  }
  return false;
}

int check(const std::vector<const char*>& files) {
  int status = 0;
  for (const char* name : files) {
    sf::Buffer data;
    if (!readFile(name, data)) {
      status = 2;
      continue;
    }
    SfBerComponent comp;
    comp.AssignPDU(&data, 0, data.size());
    if (validate(name, comp, stdout)) {
      printf("%s: valid\n", name);
    } else if (status == 0) {
      status = 1;
    }
  }
  return status;
}

int dump(const char* name, const char* path) {
  sf::Buffer data;
  if (!readFile(name, data)) return 2;
  SfBerComponent comp;
  comp.AssignPDU(&data, 0, data.size());
  if (!validate(name, comp, stderr)) {
    if (path) return 1;
    // Show what can be read, as far as it goes.
    SfBerComponent raw(&data, 0, data.size());
    dumpItems(raw, 0);
    return 1;
  }
  try {
    if (!path) {
      dumpItems(comp, 0);
      return 0;
    }
    // Walk the path: each step but the last descends into a constructed item.
    SfBerComponent cur = comp;
    const char* p = path;
    for (;;) {
      char* end;
      unsigned long n = strtoul(p, &end, 10);
      if (end == p || n == 0 || (*end != '.' && *end != '\0')) {
        fprintf(stderr, "sfber: bad item path '%s'\n", path);
        return 2;
      }
      cur.SetItem(static_cast<unsigned>(n));
      if (*end == '\0') break;
      unsigned pos = cur.GetItemOffset();
      int ident = cur.GetValueTag(&pos);
      size_t len = cur.GetValueLength(&pos);
      if (!(ident & 0x20)) {
        fprintf(stderr, "sfber: %s: item %.*s is primitive\n", name, static_cast<int>(end - path),
                path);
        return 1;
      }
      SfBerComponent inner(cur.GetPDU(), pos, len);
      inner.CopySettings(cur);
      cur = inner;
      p = end + 1;
    }
    std::vector<SfBerComponent> inner;
    dumpItem(cur, 0, &inner);
    if (!inner.empty()) dumpItems(inner.back(), 1);
    return 0;
  } catch (const sf::Xber& x) {
    fprintf(stderr, "sfber: %s: %s\n", name,
            x.GetError() == sf::Ber::INVALID_INDEX ? "no such item" : errorName(x.GetError()));
    return 1;
  }
}

bool parseInt(const char* text, int* out) {
  char* end;
  errno = 0;
  long v = strtol(text, &end, 10);
  if (end == text || *end != '\0' || errno != 0 || v < -2147483647L - 1 || v > 2147483647L)
    return false;
  *out = static_cast<int>(v);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  // Every component takes these: the defaults, or the command line's.
  sfber::BerOptions opt;
  std::vector<const char*> args;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "-h" || a == "--help") {
      fputs(kUsage, stdout);
      return 0;
    }
    if (a == "--max-length" || a == "--max-depth") {
      int* target = a == "--max-length" ? &opt.maxLength : &opt.maxDepth;
      if (i + 1 >= argc || !parseInt(argv[i + 1], target)) {
        fprintf(stderr, "sfber: %s needs an integer\n%s", a.c_str(), kUsage);
        return 2;
      }
      if (target == &opt.maxDepth && opt.maxDepth < 1) {
        fprintf(stderr, "sfber: --max-depth is \"%s\"; allowed: 1 or more\n", argv[i + 1]);
        return 2;
      }
      ++i;
      continue;
    }
    if (a.size() > 1 && a[0] == '-' && a != "--") {
      fprintf(stderr, "sfber: unknown option %s\n%s", a.c_str(), kUsage);
      return 2;
    }
    if (a != "--") args.push_back(argv[i]);
  }
  if (args.empty()) {
    fputs(kUsage, stderr);
    return 2;
  }

  // Rejection reasons come from the codec's log at its error level.
  sfber::SfBerComponent::SetProcessOptions(opt);
  g_errorLevel = opt.logErrorLevel;
  sf::setlog(keepReason);
  sf::g_logLevel.store(g_errorLevel);

  std::string cmd = args[0];
  std::vector<const char*> rest(args.begin() + 1, args.end());
  if (cmd == "check" && !rest.empty()) return check(rest);
  if (cmd == "dump" && (rest.size() == 1 || rest.size() == 2))
    return dump(rest[0], rest.size() == 2 ? rest[1] : nullptr);
  fprintf(stderr, "sfber: bad command line\n%s", kUsage);
  return 2;
}
