// The shared library's dynamic symbol table: exactly the interface of zel.h, nothing else, and
// the SONAME applications link against.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

// Every function that zel.h declares, in the header's order.
const std::vector<std::string> interfaceFunctions = {
    // context
    "Zel004", "Zel001", "Zel003b",
    // objects
    "Zel000", "Zel000a", "Zel000b", "Zel000c", "Zel000d", "Zel000e", "Zel000f", "Zel000g",
    "Zel000h", "Zel000i", "Zel000j", "Zel000k", "Zel000l", "Zel000m", "Zel000n", "Zel000z",
    "Zel002", "Zel097", "Zel098", "Zel099",
    // tuples
    "Zel000o", "Zel000p", "Zel000p2", "Zel000q", "Zel000q2",
    // object attributes and settings
    "Zel005", "Zel005a", "Zel006", "Zel006a", "Zel007", "Zel007a", "Zel008", "Zel008a",
    // composites
    "Zel010", "Zel011",
    // movement and exchange
    "Zel601", "Zel600", "Zel603", "Zel605", "Zel609",
    // point, colour and orientation
    "Zel101", "Zel102", "Zel103", "Zel104", "Zel105", "Zel105a", "Zel106", "Zel108",
    // geometry
    "Zel109", "Zel110", "Zel111", "Zel112", "Zel115",
    // neighbourhood and rank filters
    "Zel107", "Zel200", "Zel201", "Zel202", "Zel203",
    // lookup, scalar arithmetic, threshold and blend
    "Zel120", "Zel121", "Zel122", "Zel130", "Zel132", "Zel135",
    // halftoning and quantisation
    "Zel125", "Zel125a", "Zel127",
    // generators
    "Zel500", "Zel501", "Zel502", "Zel503", "Zel506", "Zel507", "Zel508", "Zel509", "Zel561",
    "Zel562", "Zel563", "Zel564", "Zel565", "Zel566", "Zel567", "Zel568",
    // histogram, tone curves and colour adjustment
    "Zel126", "Zel129", "Zel133", "Zel134", "Zel136", "Zel137",
    // compression
    "Zel700", "Zel701",
    // file interchange
    "Zel702", "Zel702x", "Zel702z", "Zel703", "Zel703x", "Zel703w", "Zel703z", "Zel704", "Zel704w",
    "Zel705", "Zel705w"};

const std::vector<std::string> classDescriptors = {
    "ZelClassColourImage",         "ZelClassGenericImage",
    "ZelClassMonochromeImage",     "ZelClassHistogram",
    "ZelClassLookupTable",         "ZelClassMatrix",
    "ZelClassDitherArray",         "ZelClassImpulseResponseArray",
    "ZelClassMaskArray",           "ZelClassROI",
    "ZelClassPowerSpectrumArray",  "ZelClassTransferFunctionArray",
    "ZelClassWindowFunctionArray", "ZelClassTuple",
    "ZelClassCompositeIDArray",
};

// The functions the library implements so far; each must be exported. Add a function here when
// it lands.
const std::vector<std::string> implementedFunctions = {
    "Zel004",  "Zel001",   "Zel003b", "Zel000",   "Zel000a", "Zel000b", "Zel000c", "Zel000d",
    "Zel000e", "Zel000f",  "Zel000g", "Zel000h",  "Zel000i", "Zel000j", "Zel000k", "Zel000l",
    "Zel000m", "Zel000n",  "Zel000z", "Zel002",   "Zel097",  "Zel098",  "Zel099",  "Zel005",
    "Zel005a", "Zel006",   "Zel006a", "Zel007",   "Zel007a", "Zel008",  "Zel008a", "Zel010",
    "Zel011",  "Zel106",   "Zel601",  "Zel600",   "Zel603",  "Zel605",  "Zel609",  "Zel000o",
    "Zel000p", "Zel000p2", "Zel000q", "Zel000q2", "Zel120",  "Zel121",  "Zel122",  "Zel130",
    "Zel132",  "Zel135",   "Zel126",  "Zel129",   "Zel133",  "Zel134",  "Zel700",  "Zel701",
    "Zel702",  "Zel703",   "Zel704",  "Zel704w",  "Zel705",  "Zel705w", "Zel702x", "Zel702z",
    "Zel703x", "Zel703w",  "Zel703z",
};

struct CommandResult {
  int status;
  std::string output;
};

CommandResult run(const std::string &command) {
  CommandResult result{-1, {}};
  FILE *pipe = popen(command.c_str(), "r");
  if (!pipe) return result;
  char buffer[4096];
  size_t bytes;
  while ((bytes = fread(buffer, 1, sizeof buffer, pipe)) > 0)
    result.output.append(buffer, bytes);
  result.status = pclose(pipe);
  return result;
}

std::string quoted(const std::string &path) {
  std::string out = "'";
  for (char c : path) {
    if (c == '\'')
      out += "'\\''";
    else
      out += c;
  }
  return out + "'";
}

// Symbol name to nm's type letter, for every defined dynamic symbol of the shared library.
std::map<std::string, char> definedDynamicSymbols() {
  // Only standard output is parsed: a diagnostic must not pass for a symbol.
  CommandResult nm = run("nm -D --defined-only " + quoted(ZEL_SHARED_LIBRARY));
  EXPECT_EQ(nm.status, 0) << "nm failed on " << ZEL_SHARED_LIBRARY;
  std::map<std::string, char> symbols;
  std::istringstream lines(nm.output);
  std::string line;
  while (std::getline(lines, line)) {
    // "<address> <type> <name>[@version]"; undefined-weak lines have no address.
    std::istringstream fields(line);
    std::vector<std::string> parts;
    std::string part;
    while (fields >> part)
      parts.push_back(part);
    if (parts.size() < 2) continue;
    std::string name = parts.back();
    name = name.substr(0, name.find('@'));
    symbols[name] = parts[parts.size() - 2][0];
  }
  return symbols;
}

std::set<std::string> allowedSymbols() {
  std::set<std::string> allowed(interfaceFunctions.begin(), interfaceFunctions.end());
  allowed.insert(classDescriptors.begin(), classDescriptors.end());
  return allowed;
}

TEST(ExportedSymbols, InterfaceListNamesOneHundredAndFiveDistinctFunctions) {
  std::set<std::string> unique(interfaceFunctions.begin(), interfaceFunctions.end());
  EXPECT_EQ(interfaceFunctions.size(), 105u);
  EXPECT_EQ(unique.size(), interfaceFunctions.size());
  EXPECT_EQ(std::set<std::string>(classDescriptors.begin(), classDescriptors.end()).size(), 15u);
}

TEST(ExportedSymbols, InterfaceListMatchesThePublicHeader) {
  std::filesystem::path header =
      std::filesystem::path(__FILE__).parent_path().parent_path() / "include" / "zel.h";
  std::ifstream in(header);
  ASSERT_TRUE(in) << "public header not found at " << header;
  std::stringstream text;
  text << in.rdbuf();
  const std::string source = text.str();

  // Functions: "Zel<digits><letters and digits>" followed by "(". Descriptors: "ZelClass<Name>"
  // followed by ";".
  std::set<std::string> declared, descriptors;
  for (size_t at = source.find("Zel"); at != std::string::npos; at = source.find("Zel", at + 1)) {
    if (at > 0 &&
        (std::isalnum(static_cast<unsigned char>(source[at - 1])) || source[at - 1] == '_'))
      continue;
    size_t end = at + 3;
    while (end < source.size() && std::isalnum(static_cast<unsigned char>(source[end])))
      ++end;
    std::string name = source.substr(at, end - at);
    size_t next = source.find_first_not_of(" \t\n", end);
    char follower = next == std::string::npos ? '\0' : source[next];
    if (name.size() > 3 && std::isdigit(static_cast<unsigned char>(name[3])) && follower == '(')
      declared.insert(name);
    if (name.rfind("ZelClass", 0) == 0 && name.size() > 8 && follower == ';')
      descriptors.insert(name);
  }
  EXPECT_EQ(declared, std::set<std::string>(interfaceFunctions.begin(), interfaceFunctions.end()));
  EXPECT_EQ(descriptors, std::set<std::string>(classDescriptors.begin(), classDescriptors.end()));
}

TEST(ExportedSymbols, SharedLibraryDefinesNothingBeyondTheInterface) {
  const std::set<std::string> allowed = allowedSymbols();
  auto symbols = definedDynamicSymbols();
  ASSERT_FALSE(symbols.empty()) << "nm listed no defined dynamic symbol in " << ZEL_SHARED_LIBRARY;
  for (const auto &[name, type] : symbols)
    EXPECT_TRUE(allowed.count(name))
        << "unexpected exported symbol '" << name << "' (" << type << ")";
}

TEST(ExportedSymbols, EveryImplementedFunctionIsExportedAsCode) {
  auto symbols = definedDynamicSymbols();
  for (const std::string &name : implementedFunctions) {
    auto found = symbols.find(name);
    ASSERT_NE(found, symbols.end()) << name << " is not exported";
    EXPECT_EQ(found->second, 'T') << name << " is not exported as a function";
  }
}

TEST(ExportedSymbols, AllFifteenClassDescriptorsAreExportedAsData) {
  auto symbols = definedDynamicSymbols();
  for (const std::string &name : classDescriptors) {
    auto found = symbols.find(name);
    ASSERT_NE(found, symbols.end()) << name << " is not exported";
    EXPECT_NE(std::string("DdRrBb").find(found->second), std::string::npos)
        << name << " is exported as '" << found->second << "', not as data";
  }
}

TEST(ExportedSymbols, SharedLibraryCarriesSonameOfInterfaceVersionOne) {
  CommandResult readelf = run("readelf -d " + quoted(ZEL_SHARED_LIBRARY) + " 2>&1");
  ASSERT_EQ(readelf.status, 0) << readelf.output;
  // " 0x000000000000000e (SONAME)             Library soname: [libzel.so.1]"
  size_t tag = readelf.output.find("(SONAME)");
  ASSERT_NE(tag, std::string::npos) << "no SONAME in\n" << readelf.output;
  size_t open = readelf.output.find('[', tag);
  size_t close = readelf.output.find(']', open);
  ASSERT_TRUE(open != std::string::npos && close != std::string::npos) << readelf.output;
  EXPECT_EQ(readelf.output.substr(open + 1, close - open - 1), "libzel.so.1");
}

}  // namespace
