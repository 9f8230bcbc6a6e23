#include "HostileNames.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <set>

namespace orin::xfer::test {

namespace {

// Code points that look like "/" or "\" or ".", as UTF-8.
const char* const kSlashLookAlikes[] = {
    "\xE2\x88\x95",      // U+2215 DIVISION SLASH
    "\xE2\x81\x84",      // U+2044 FRACTION SLASH
    "\xEF\xBC\x8F",      // U+FF0F FULLWIDTH SOLIDUS
    "\xE2\xA7\xB8",      // U+29F8 BIG SOLIDUS
    "\xE2\x95\xB1",      // U+2571 BOX DRAWINGS LIGHT DIAGONAL
    "\xE1\x9C\xB5",      // U+1735 PHILIPPINE SINGLE PUNCTUATION
    "\xE3\x80\xB3",      // U+3033 VERTICAL KANA REPEAT MARK UPPER HALF
    "\xE2\x88\x96",      // U+2216 SET MINUS (looks like "\")
    "\xEF\xBC\xBC",      // U+FF3C FULLWIDTH REVERSE SOLIDUS
    "\xEF\xB9\xA8",      // U+FE68 SMALL REVERSE SOLIDUS
    "\xE2\xA7\xB9",      // U+29F9 BIG REVERSE SOLIDUS
};
const char* const kDotLookAlikes[] = {
    "\xE2\x80\xA4",  // U+2024 ONE DOT LEADER
    "\xEF\xBC\x8E",  // U+FF0E FULLWIDTH FULL STOP
    "\xE3\x80\x82",  // U+3002 IDEOGRAPHIC FULL STOP
    "\xEF\xB9\x92",  // U+FE52 SMALL FULL STOP
};

void addDotDotEverywhere(std::vector<std::string>& out)
{
    // ".." as every component of paths of one to four components.
    const std::vector<std::string> parts{"a", "bb", "..", "."};
    for (int length = 1; length <= 4; ++length) {
        int combinations = 1;
        for (int i = 0; i < length; ++i) {
            combinations *= static_cast<int>(parts.size());
        }
        for (int code = 0; code < combinations; ++code) {
            std::string name;
            bool hasDot = false;
            int rest = code;
            for (int i = 0; i < length; ++i) {
                const std::string& part = parts[static_cast<size_t>(rest % 4)];
                rest /= 4;
                hasDot = hasDot || part == "..";
                name += (i == 0 ? "" : "/") + part;
            }
            if (hasDot) {
                out.push_back(name);
            }
        }
    }
    for (const char* name : {"../../../../../../../../etc/passwd", "../../../../../../../../tmp/xferfm-escape",
                             "a/b/c/../../../../x", "..../x", ".../x", "a/.../b", "..a/b", "a../b", "a/..b",
                             "./../x", "a/./../../x", "..//x", "a//..//..//x", "../", "..\\", "..\\..\\x"}) {
        out.push_back(name);
    }
}

void addAbsolute(std::vector<std::string>& out, const std::string& canary)
{
    for (const std::string& name : std::vector<std::string>{std::string("/"), std::string("//"), std::string("///x"), std::string("/etc/passwd"),
          std::string("/tmp/xferfm-escape"), std::string("/./x"), std::string("/../x"), std::string("//server/share/x"),
          canary + "/victim.txt", canary + "/new-file", canary + "/sub/file.bin", canary + "/sub/new-dir/x",
          "/" + canary + "/victim.txt", "/proc/self/mem", "/dev/null", "~/x", "~root/.ssh/authorized_keys"}) {
        out.push_back(name);
    }
}

void addSeparators(std::vector<std::string>& out, const std::string& canary)
{
    for (const std::string& name : std::vector<std::string>{std::string("a\\b"), std::string("\\x"), std::string("\\\\server\\share\\x"), std::string("..\\..\\..\\x"),
          std::string("a/b\\..\\..\\..\\x"), std::string("a\\..\\..\\x/y"), std::string("\\..\\x"),
          std::string("a\\/b"), std::string("a/\\/b"), std::string("\\") + canary.substr(1),
          std::string("..\\") + "canary\\victim.txt", std::string("a\\"), std::string("\\")}) {
        out.push_back(name);
    }
    // Drive letters and device names.
    for (const char* name : {"C:\\Windows\\system32\\x", "C:/x", "c:", "C:", "C:..\\x", "D:x", "C:\\", "Z:/../x",
                             "\\\\?\\C:\\x", "\\\\.\\PhysicalDrive0", "CON", "NUL", "aux.txt", "COM1", "LPT1.log",
                             "nul/x", "con.", "a:b", "a:b:c", "x::$DATA"}) {
        out.push_back(name);
    }
}

void addControls(std::vector<std::string>& out)
{
    out.push_back(std::string("a\0b", 3));
    out.push_back(std::string("\0", 1));
    out.push_back(std::string("x/\0/y", 5));
    out.push_back(std::string("..\0/x", 5));
    out.push_back(std::string("\0../x", 5));
    for (int c = 1; c < 0x20; ++c) {
        out.push_back("c" + std::string(1, static_cast<char>(c)) + "x");
    }
    out.push_back("a\x7f" "b");
    out.push_back("\x1b[2J\x1b[31mred");
    out.push_back("line\nbreak/../x");
    out.push_back("tab\t/x");
    out.push_back("\r/x");
    out.push_back("x\n");
}

void addLengths(std::vector<std::string>& out)
{
    out.push_back(std::string(255, 'a'));
    out.push_back(std::string(256, 'a'));
    out.push_back(std::string(1000, 'b'));
    out.push_back(std::string(5000, 'c'));
    out.push_back("d/" + std::string(256, 'e'));
    out.push_back(std::string(300, 'f') + "/x");
    std::string deep;
    for (int i = 0; i < 300; ++i) {
        deep += (i == 0 ? "" : "/") + std::string("d");
    }
    out.push_back(deep);
    std::string wide;
    while (wide.size() < 4200) {
        wide += (wide.empty() ? "" : "/") + std::string(200, 'w');
    }
    out.push_back(wide);
    std::string upAndDeep;
    for (int i = 0; i < 100; ++i) {
        upAndDeep += "../";
    }
    out.push_back(upAndDeep + "x");
    out.push_back(std::string(255, 'g') + "/" + std::string(255, 'h'));
    // 255 bytes of a multi-byte character, cut inside the character.
    std::string accents;
    while (accents.size() < 256) {
        accents += "\xC3\xA9";
    }
    out.push_back(accents.substr(0, 255));
    out.push_back(accents);
}

void addTrailing(std::vector<std::string>& out)
{
    for (const char* name : {"x.", "x..", "x...", "x ", "x  ", "x. ", "x .", "...", "....", " ", "  ", ". .", " .",
                             ". ", " ..", ".. ", "dir./x", "dir /x", "dir../x", "x.\t", "-rf", "--help", "*", "?",
                             "[a-z]", "$HOME", "`id`", "$(id)", "'quoted'", "\"dq\"", "a|b", "a>b", "<x", "%2e%2e%2f",
                             "..%2fx", "%2e%2e/x", "..%5c..%5cx", "..%c0%afx"}) {
        out.push_back(name);
    }
}

void addUnicode(std::vector<std::string>& out)
{
    for (const char* slash : kSlashLookAlikes) {
        const std::string s = slash;
        out.push_back(".." + s + ".." + s + "etc" + s + "passwd");
        out.push_back("a" + s + "b");
        out.push_back(s);
        out.push_back(s + "etc" + s + "passwd");
        out.push_back("../" + std::string("x") + s);
    }
    for (const char* dot : kDotLookAlikes) {
        const std::string d = dot;
        out.push_back(d + d);
        out.push_back(d + d + "/x");
        out.push_back("." + d + "/x");
    }
    out.push_back("\xE2\x80\xA5");       // U+2025 TWO DOT LEADER
    out.push_back("\xE2\x80\xA5/x");
    out.push_back("name\xE2\x80\xAEtxt.exe");  // U+202E RIGHT-TO-LEFT OVERRIDE
    out.push_back("\xE2\x80\x8B");       // U+200B ZERO WIDTH SPACE alone
    out.push_back("\xEF\xBB\xBF..");     // BOM then ".."
    out.push_back("..\xE2\x80\x8B/x");   // ".." with a zero-width space
    out.push_back("e\xCC\x81");          // e + combining acute accent
    out.push_back("\xC2\xA0");           // U+00A0 NO-BREAK SPACE
    // Malformed UTF-8, some of it spelling "/" or "." the long way.
    for (const char* bytes : {"\xC0\xAF", "\xE0\x80\xAF", "\xF0\x80\x80\xAF", "\xC0\xAE\xC0\xAE/x", "..\xC0\xAFx",
                              "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\x80", "\xBF", "\xFE", "\xFF",
                              "a\xC3", "\xE2\x88", "\xC1\x9C", "\xF8\x88\x80\x80\x80"}) {
        out.push_back(bytes);
    }
}

void addThroughLinks(std::vector<std::string>& out)
{
    for (const char* name : {"evil", "evil/x", "evil/victim.txt", "evil/sub/file.bin", "evil/new-dir/x", "evil/../x",
                             "evil-abs/victim.txt", "evil-abs/new-file", "evil-rel/victim.txt", "plain.txt",
                             "dangling", "dangling/x", "deep/link", "deep/link/x", "deep/link/victim.txt",
                             "deep/../evil/x", "./evil/x", "evil/./x", "deep/./link/x"}) {
        out.push_back(name);
    }
}

}  // namespace

std::vector<std::string> HostileNames(const std::string& canary, const std::string& destinationName)
{
    std::vector<std::string> names;
    addDotDotEverywhere(names);
    addAbsolute(names, canary);
    addSeparators(names, canary);
    addControls(names);
    addLengths(names);
    addTrailing(names);
    addUnicode(names);
    addThroughLinks(names);
    names.push_back("../canary/victim.txt");
    names.push_back("../canary/new-file");
    names.push_back("../" + destinationName + "/../canary/victim.txt");
    names.push_back("x/../../canary/victim.txt");
    // Keep each name once, in the order made.
    std::vector<std::string> unique;
    std::set<std::string> seen;
    for (auto& name : names) {
        if (seen.insert(name).second) {
            unique.push_back(std::move(name));
        }
    }
    return unique;
}

void PlantLinks(const std::string& destination, const std::string& canary)
{
    auto link = [](const std::string& target, const std::string& path) {
        if (symlink(target.c_str(), path.c_str()) != 0) {
            std::perror(("symlink " + path).c_str());
        }
    };
    link(canary, destination + "/evil");
    link(canary, destination + "/evil-abs");
    link("../canary", destination + "/evil-rel");
    link(canary + "/victim.txt", destination + "/plain.txt");
    link(canary + "/created-through-a-link", destination + "/dangling");
    mkdir((destination + "/deep").c_str(), 0755);
    link(canary, destination + "/deep/link");
}

std::string Printable(const std::string& name)
{
    std::string out;
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte >= 0x7f || c == '\\') {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
            out += escaped;
        } else {
            out += c;
        }
    }
    return out.size() > 120 ? out.substr(0, 120) + "...(" + std::to_string(name.size()) + " bytes)" : out;
}

}  // namespace orin::xfer::test
