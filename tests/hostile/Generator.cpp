#include "Generator.h"

#include <algorithm>
#include <initializer_list>
#include <random>
#include <sstream>
#include <string>

#include "Request.h"

namespace {

using std::string_literals::operator""s;

constexpr std::size_t MEBIBYTE = 1048576;
// The kernel takes no longer variable, name, equals sign and end included.
constexpr std::size_t LONGEST_VARIABLE = 131072;

// ---- Chance.

class Dice {
 public:
  Dice(std::uint32_t seed, std::uint32_t number) {
    std::seed_seq seeds{seed, number};
    random_.seed(seeds);
  }

  std::size_t Below(std::size_t end) { return random_() % end; }
  bool OneIn(std::size_t count) { return Below(count) == 0; }
  char Byte() { return static_cast<char>(Below(256)); }

  template <typename Item>
  Item OneOf(std::initializer_list<Item> items) {
    return items.begin()[Below(items.size())];
  }

  std::string Text(std::initializer_list<const char*> texts) { return OneOf(texts); }

  std::string Bytes(std::size_t size) {
    std::string bytes;
    for (std::size_t i = 0; i < size; ++i) {
      bytes += Byte();
    }
    return bytes;
  }

 private:
  std::mt19937 random_;
};

// ---- Fields.

std::string EveryByte() {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) {
    bytes += static_cast<char>(byte);
  }
  return bytes;
}

std::string AnyValue(Dice& dice) {
  switch (dice.Below(14)) {
    case 0:
      return "";
    case 1:
      return dice.Text({"-1", "0", "+500", "1e3", "0x10", "99999999999999999999999999", "NaN"});
    case 2:
      return dice.Text({"<script>alert(1)</script>", "&amp;<>\"'", "</body></html>", "<!--"});
    case 3:
      return dice.Text(
          {"1\nVEMODOther=1", "1\r\n[OTHER]\r\nx=1", "\n", "\r", "\r\n\r\n", "\n[CAN]"});
    case 4:
      return "a\0b\0"s;
    case 5:
      return EveryByte();
    case 6:
      return dice.Text({"\"", "\"\"", "\"500\"", "\"500", "500\"", "\\", "\\\"", "\\n", "\"\\"});
    case 7:
      return dice.Text({" ", "\t", " 500", "500\t", "  \t  ", " \n "});
    case 8:
      return dice.Text({"%s%n%x", "%", "%4", "%zz", "%00", "$(reboot)", "`reboot`", "; reboot"});
    case 9:
      return dice.Text(
          {"[SETTINGS]", "; x", "# x", "=", "VEMODCanDetectTimeout=2", "\xEF\xBB\xBF"});
    case 10:
      return dice.Bytes(dice.Below(60));
    case 11:
      return std::string(dice.Below(5000), dice.Byte());
    case 12:
      return dice.OneIn(20) ? std::string(MEBIBYTE, dice.Byte()) : dice.Bytes(dice.Below(3000));
    default:
      return std::to_string(dice.Below(100000));
  }
}

std::string AnyName(Dice& dice) {
  switch (dice.Below(9)) {
    case 0:
      return dice.Text({"candetecttimeout", "CANDETECTTIMEOUT", "cANdETECTtIMEOUT"});
    case 1:
      return dice.Text({"", " ", "CanDetectTimeout ", " CanDetectTimeout", "CanDetectTimeou",
                        "CanDetectTimeout2", "CanDetectTimeout[]", "VEMODCanDetectTimeout"});
    case 2:
      return dice.OneIn(2) ? "CanDetectTimeout\0"s : "CanDetect\0Timeout"s;
    case 3:
      return dice.Bytes(dice.Below(40));
    case 4:
      return dice.OneIn(20) ? std::string(MEBIBYTE, 'n') : std::string(dice.Below(5000), 'n');
    default:
      return "CanDetectTimeout";
  }
}

Fields AnyFields(Dice& dice) {
  Fields fields;
  const std::size_t count = dice.OneIn(50) ? 500 : dice.OneIn(3) ? dice.Below(5) : 1;
  for (std::size_t i = 0; i < count; ++i) {
    fields.emplace_back(AnyName(dice), AnyValue(dice));
  }
  return fields;
}

// ---- Their encodings.

std::string PercentEncoded(Dice& dice, const std::string& bytes) {
  const std::size_t raw = dice.OneOf<std::size_t>({1, 3, 1000});
  std::string encoded;
  for (const char byte : bytes) {
    if (dice.OneIn(raw) || (byte >= '0' && byte <= 'z')) {
      encoded += byte;
    } else {
      constexpr char DIGITS[] = "0123456789abcdef0123456789ABCDEF";
      const auto code = static_cast<unsigned char>(byte);
      const std::size_t letters = dice.OneOf<std::size_t>({0, 16});
      encoded += '%';
      encoded += DIGITS[letters + code / 16];
      encoded += DIGITS[letters + code % 16];
    }
  }
  return encoded;
}

std::string UrlEncoded(Dice& dice, const Fields& fields) {
  std::string encoded = dice.Text({"", "", "", "&", "=", "&&;", "="});
  for (const auto& [name, value] : fields) {
    encoded += PercentEncoded(dice, name);
    encoded += dice.OneIn(10) ? dice.Text({"", "==", "%3D", "&", "= "}) : "=";
    encoded += PercentEncoded(dice, value);
    encoded += dice.OneIn(10) ? dice.Text({"", ";", "&&", "&=", "%26", "&%", "&%4", "&+"}) : "&";
  }
  return encoded;
}

std::string LineEnd(Dice& dice) {
  return dice.OneIn(12) ? dice.Text({"\n", "\r", "", "\r\n\r\n", " \r\n"}) : "\r\n";
}

std::string Part(Dice& dice, const std::string& boundary, const std::string& name,
                 const std::string& value) {
  const std::string quote = dice.OneIn(12) ? dice.Text({"", "'", "\"\""}) : "\"";
  std::string part = (dice.OneIn(12) ? dice.Text({"", "-", "---"}) : "--") + boundary;
  part += LineEnd(dice);
  part +=
      dice.OneIn(12) ? dice.Text({"Content-Type: text/plain\r\n", "X:\r\n", ":\r\n", "\0"}) : "";
  part += dice.OneIn(12) ? dice.Text({"content-disposition: ", "Content-Disposition:", ""})
                         : "Content-Disposition: ";
  part += dice.OneIn(12) ? dice.Text({"attachment", "", "form-data; form-data"}) : "form-data";
  part += dice.OneIn(12) ? dice.Text({"; NAME=", ";name=", "; ", "; name =", "; name"}) : "; name=";
  part += quote + name + quote;
  part += dice.OneIn(8) ? dice.Text({"; filename=\"\"", "; filename=\"/etc/passwd\"", "; filename",
                                     "; name=\"Other\"", ";", "\0"})
                        : "";
  part += LineEnd(dice);
  part += dice.OneIn(8) ? dice.Text({"Content-Type: text/plain\r\n", "Content-Type:\r\n",
                                     "Content-Type: multipart/mixed; boundary=frontier\r\n",
                                     "Content-Transfer-Encoding: base64\r\n", "no colon\r\n"})
                        : "";
  return part + (dice.OneIn(12) ? "" : LineEnd(dice)) + value + LineEnd(dice);
}

std::string Multipart(Dice& dice, const std::string& boundary, const Fields& fields) {
  std::string body = dice.OneIn(12) ? "preamble\r\n" : "";
  for (const auto& [name, value] : fields) {
    body += Part(dice, boundary, name, value);
  }
  body +=
      dice.OneIn(8) ? dice.Text({"", "--", "--frontier", "--frontier-"}) : "--" + boundary + "--";
  body += LineEnd(dice);
  if (dice.OneIn(10)) {
    body.resize(dice.Below(body.size() + 1));
  }
  return body;
}

// ---- The environment.

std::string AnyGarbage(Dice& dice) {
  switch (dice.Below(6)) {
    case 0:
      return "";
    case 1:
      return dice.Bytes(dice.Below(100));
    case 2:
      return dice.OneIn(10) ? std::string(LONGEST_VARIABLE, dice.Byte())
                            : std::string(dice.Below(3000), dice.Byte());
    default:
      return AnyValue(dice);
  }
}

std::string AnyMethod(Dice& dice) {
  return dice.OneIn(4) ? dice.Text({"", "post", "Post", "POST ", "HEAD", "PUT", "DELETE", "OPTIONS",
                                    "TRACE", "CONNECT", "PATCH", "POST\n", "GETPOST"})
                       : dice.Text({"GET", "POST", "POST"});
}

// As announced, and otherwise.
std::string AnyLength(Dice& dice, std::size_t size) {
  switch (dice.Below(12)) {
    case 0:
      return std::to_string(size + 1);
    case 1:
      return std::to_string(size - 1);
    case 2:
      return std::to_string(size / 2);
    case 3:
      return std::to_string(size * 2 + dice.Below(100));
    case 4:
      return dice.Text({"-1", "-2", "-2147483648", "-9223372036854775808", "-0", "--1"});
    case 5:
      return dice.Text({"2147483647", "2147483648", "4294967295", "4294967296", "10000000000",
                        "9223372036854775807", "9223372036854775808", "18446744073709551615",
                        "18446744073709551616", "99999999999999999999999999999999"});
    case 6:
      return dice.Text({"", " ", "x", "a lot", "500x", "0x10", "1e3", "1.5", "\n5", "%d", "NaN"});
    case 7:
      return dice.OneOf({" "s, "+"s, "000000"s, "\t"s}) + std::to_string(size);
    case 8:
      return AnyGarbage(dice);
    default:
      return std::to_string(size);
  }
}

std::string AnyCookies(Dice& dice) {
  std::string cookies;
  for (std::size_t count = dice.Below(6); count > 0; --count) {
    cookies += dice.OneIn(2) ? AnyName(dice) : dice.Bytes(dice.Below(10));
    cookies += dice.Text({"=", "", "==", " = "}) + AnyValue(dice);
    cookies += dice.Text({";", "; ", ",", ";;", "", ";\n"});
  }
  return cookies;
}

constexpr char META[] =
    "SERVER_SOFTWARE SERVER_NAME SERVER_PROTOCOL SERVER_PORT PATH_INFO PATH_TRANSLATED SCRIPT_NAME "
    "REMOTE_HOST REMOTE_ADDR AUTH_TYPE REMOTE_USER REMOTE_IDENT HTTP_ACCEPT HTTP_USER_AGENT "
    "HTTP_REFERER HTTP_ACCEPT_LANGUAGE HTTPS REDIRECT_REQUEST REDIRECT_URL REDIRECT_STATUS "
    "GATEWAY_INTERFACE HTTP_TRANSFER_ENCODING HTTP_X LANG LC_ALL TZ";

void AddMeta(Dice& dice, Command& request) {
  std::istringstream names(META);
  for (std::string name; names >> name;) {
    if (dice.OneIn(12)) {
      request.environment[name] = AnyGarbage(dice);
    }
  }
  if (dice.OneIn(3)) {
    request.environment["HTTP_COOKIE"] = AnyCookies(dice);
  }
}

void LoseVariables(Dice& dice, Command& request) {
  for (auto variable = request.environment.begin(); variable != request.environment.end();) {
    variable = dice.OneIn(4) ? request.environment.erase(variable) : std::next(variable);
  }
}

// Makes of the request one that can be started.
void Fit(Command& request) {
  for (auto& [name, value] : request.environment) {
    value.erase(std::remove(value.begin(), value.end(), '\0'), value.end());
    const std::size_t room = LONGEST_VARIABLE - name.size() - sizeof "=";
    value.resize(std::min(value.size(), room));
  }
}

// ---- Whole requests.

void GiveBody(Dice& dice, Command& request) {
  const std::string boundary =
      dice.OneIn(8) ? dice.Text({"", "-", "a b", "\"frontier\"", "frontier;", "\xff"}) : "frontier";
  const std::string quote = dice.OneIn(8) ? "\"" : "";
  const bool isMultipart = dice.OneIn(2);
  request.environment["REQUEST_METHOD"] = AnyMethod(dice);
  if (isMultipart) {
    request.input = Multipart(dice, boundary, AnyFields(dice));
    request.environment["CONTENT_TYPE"] =
        dice.OneIn(8) ? dice.Text({"multipart/form-data", "multipart/form-data;",
                                   "multipart/form-data; boundary", "Multipart/Form-Data",
                                   "multipart/form-data; boundary=", "multipart/mixed",
                                   "multipart/form-data; charset=x; boundary=frontier"})
                      : "multipart/form-data; boundary=" + quote + boundary + quote;
  } else {
    request.input = UrlEncoded(dice, AnyFields(dice));
    request.environment["CONTENT_TYPE"] =
        dice.OneIn(8) ? dice.Text({"", "application/x-www-form-urlencoded; charset=utf-16",
                                   "APPLICATION/X-WWW-FORM-URLENCODED", "text/plain",
                                   "application/json", "application/x-www-form-urlencoded2"})
                      : "application/x-www-form-urlencoded";
  }
  request.environment["CONTENT_LENGTH"] = AnyLength(dice, request.input.size());
  if (dice.OneIn(20)) {
    request.input += dice.Bytes(dice.Below(200000));
  }
}

void ChangeBytes(Dice& dice, std::string& text) {
  for (std::size_t count = 1 + dice.Below(4); count > 0 && !text.empty(); --count) {
    const std::size_t position = dice.Below(text.size());
    switch (dice.Below(4)) {
      case 0:
        text.erase(position, 1 + dice.Below(8));
        break;
      case 1:
        text.insert(position, 1, dice.Byte());
        break;
      case 2:
        text.insert(position, text.substr(dice.Below(text.size()), dice.Below(40)));
        break;
      default:
        text[position] = dice.Byte();
    }
  }
}

Command New(Dice& dice) {
  Command request = Get(UrlEncoded(dice, AnyFields(dice)));
  if (dice.OneIn(20)) {
    request.environment["QUERY_STRING"] = AnyGarbage(dice);
  }
  if (!dice.OneIn(4)) {
    GiveBody(dice, request);
    if (dice.OneIn(2)) {
      request.environment.erase("QUERY_STRING");
    }
  }
  return request;
}

Command Changed(Dice& dice, Command request) {
  ChangeBytes(dice, request.input);
  for (auto& [name, value] : request.environment) {
    if (dice.OneIn(4)) {
      ChangeBytes(dice, value);
    }
  }
  return request;
}

Command AnyRequest(Dice& dice, const std::vector<Command>& known) {
  Command request =
      dice.OneIn(5) && !known.empty() ? Changed(dice, known[dice.Below(known.size())]) : New(dice);
  if (dice.OneIn(10)) {
    request = Changed(dice, request);
  }
  if (dice.OneIn(2)) {
    AddMeta(dice, request);
  }
  if (dice.OneIn(8)) {
    LoseVariables(dice, request);
  }
  return request;
}

}  // namespace

Command Generate(std::uint32_t seed, std::uint32_t number, const std::vector<Command>& known) {
  Dice dice(seed, number);
  Command request = AnyRequest(dice, known);
  for (const char* const name : {"JAVA_OPTIONS", "JAVA_CLASSPATH"}) {
    if (dice.OneIn(4)) {
      request.environment[name] = AnyGarbage(dice);
    }
  }
  if (dice.OneIn(40)) {
    request.environment["FAKE_VM_RESULT"] = dice.Text({"-1", "-5", "-2147483648"});
    request.environment["FAKE_VM_LEAVES"] = dice.Text({"", "vm", "env", "vm env"});
  } else if (dice.OneIn(40)) {
    request.environment["FAKE_VM_FAILS"] = "FindClass com/";
  }
  Fit(request);
  return request;
}

Command GenerateForRealVm(std::uint32_t seed, std::uint32_t number,
                          const std::vector<Command>& known) {
  Dice dice(seed, number);
  Command request = AnyRequest(dice, known);
  request.environment["JAVA_OPTIONS"] = "-XX:VMOptionsFile=/srv/vemo/java.options";
  request.environment["JAVA_CLASSPATH"] = "/srv/vemo/java";
  if (dice.OneIn(8)) {
    request.environment["JAVA_OPTIONS"] =
        dice.Text({"", " ", "-Xmx64m -Xss1m", "-Xmx1k", "%s%n%s%n", "-D", "-Dx=\n[SETTINGS]\n",
                   "-XX:VMOptionsFile=/nowhere", "\xff\xfe", "-XX:NoSuchOption", "-agentlib:x"});
  }
  if (dice.OneIn(8)) {
    request.environment["JAVA_CLASSPATH"] = AnyGarbage(dice);
  }
  if (dice.OneIn(16)) {
    request.environment.erase(dice.Text({"JAVA_OPTIONS", "JAVA_CLASSPATH"}));
  }
  Fit(request);
  return request;
}
