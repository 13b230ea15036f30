// Whether a value, placed unescaped into a distinguished name, names exactly itself.
#ifndef QORLDAP_PLATFORM_NAMETEXT_H
#define QORLDAP_PLATFORM_NAMETEXT_H

#include <cstddef>
#include <string>

namespace qor {

// What makes a value unfit to name an entry. A directory compares names after its own
// normalisation: it reads escapes ("\62" is "b", "#..." is an encoded value), drops blanks at
// either end, folds runs of blanks into one and folds compatibility forms ("ｂｏｂ", a
// no-break space) into their plain forms. A value that any of these would change, or that
// holds characters that separate names, would name some other entry than the one it spells.
enum class NameFault {
    kNone,
    kEmpty,          // no characters at all
    kControl,        // a byte 0x00-0x1F or 0x7F (line feed, carriage return, tab, ...)
    kSeparator,      // one of , + " \ < > ; = anywhere, or # first
    kBlanks,         // a blank first or last, or two blanks in a row
    kNotUtf8,        // not UTF-8 text
    kInvisible,      // a Unicode format, separator, private-use or unassigned character
    kCompatibility,  // a character the directory folds into another (not in NFKC form)
};

// The first fault of value (UTF-8), kNone when there is none; at receives the byte offset of
// the character at fault when not null.
NameFault CheckNameValue(std::string const& value, std::size_t* at = nullptr);

// For people: "a line feed (0x0A)", "the character ','", "a blank at the end", ...
std::string DescribeNameFault(std::string const& value, NameFault fault, std::size_t at);

}  // namespace qor

#endif
