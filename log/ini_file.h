// A plain INI reader for the log configuration.
//
// Each line is trimmed of blanks, tabs and line ends at both ends; empty lines are skipped. A
// line starting with "[" opens a section named by the text between its first and last
// characters (the last character is dropped whatever it is). Any other line is an entry: the key
// is the text before the first "=", the value the text after it; a line without "=" gives the
// whole line as key and value. Blanks around "=" stay part of key and value, and no comment
// syntax exists at this level: "#" and ";" lines are ordinary entries. Names and values are
// bytes in the file's own code page; a UTF-8 byte order mark at the start of the file is
// skipped.
#pragma once

#include <istream>
#include <string>
#include <vector>

namespace zpdf {

struct IniEntry {
    std::string section;  // "" before the first section header
    std::string key;
    std::string value;

    bool operator==(const IniEntry&) const = default;
};

class CIniFile {
  public:
    virtual ~CIniFile() = default;
};

// Reads the whole file into a list of entries, in file order.
class CIniFileIndirect : public CIniFile {
  public:
    // Reads `path`, replacing the entries. False when the file cannot be opened; the entries are
    // then empty.
    bool Load(const std::string& path);
    // Reads INI text from a stream, replacing the entries.
    void Read(std::istream& in);

    // Copies of the entries of `section` that have a key, in file order.
    std::vector<IniEntry> GetSection(const std::string& section) const;
    // The value of the first entry with this key in this section; "" when there is none.
    std::string GetValue(const std::string& key, const std::string& section) const;

    const std::vector<IniEntry>& Entries() const { return entries_; }
    const std::string& Path() const { return path_; }

  private:
    std::vector<IniEntry> entries_;
    std::string path_;
};

}  // namespace zpdf
