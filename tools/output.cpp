// Reading input files, PEM and base64, and writing results to a file or standard output.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "cli.h"
#include "platform/Trim.h"

namespace qortool {

namespace {

char const kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int Sextet(char c) {
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    if (c == '+')
        return 62;
    if (c == '/')
        return 63;
    return -1;
}

bool WriteAll(int fd, std::string const& data) {
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = ::write(fd, data.data() + done, data.size() - done);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

std::string ReadFile(std::string const& what, std::string const& path, size_t limit) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        Fail(what, "cannot read " + path + ": " + std::strerror(errno));
    }
    std::string data;
    char buffer[65536];
    for (;;) {
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            int err = errno;
            ::close(fd);
            Fail(what, "cannot read " + path + ": " + std::strerror(err));
        }
        if (n == 0)
            break;
        data.append(buffer, static_cast<size_t>(n));
        if (data.size() > limit) {
            ::close(fd);
            Fail(what, path + " is too large (more than " + std::to_string(limit) + " bytes)");
        }
    }
    ::close(fd);
    return data;
}

std::string Base64Encode(std::string const& data) {
    std::string out;
    out.reserve((data.size() + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 2 < data.size(); i += 3) {
        unsigned v = static_cast<unsigned char>(data[i]) << 16 |
                     static_cast<unsigned char>(data[i + 1]) << 8 |
                     static_cast<unsigned char>(data[i + 2]);
        out += kAlphabet[v >> 18 & 63];
        out += kAlphabet[v >> 12 & 63];
        out += kAlphabet[v >> 6 & 63];
        out += kAlphabet[v & 63];
    }
    size_t rest = data.size() - i;
    if (rest > 0) {
        unsigned v = static_cast<unsigned char>(data[i]) << 16;
        if (rest == 2)
            v |= static_cast<unsigned char>(data[i + 1]) << 8;
        out += kAlphabet[v >> 18 & 63];
        out += kAlphabet[v >> 12 & 63];
        out += rest == 2 ? kAlphabet[v >> 6 & 63] : '=';
        out += '=';
    }
    return out;
}

// Blanks and line breaks are skipped; padding ends the data.
bool Base64Decode(std::string const& text, std::string& out) {
    out.clear();
    unsigned v = 0;
    int bits = 0;
    size_t padding = 0;
    for (char c : text) {
        if (c == ' ' || c == '\t' || c == '\r' || c == '\n')
            continue;
        if (c == '=') {
            ++padding;
            continue;
        }
        int s = Sextet(c);
        if (s < 0 || padding > 0)
            return false;
        v = (v << 6 | static_cast<unsigned>(s)) & 0xffffff;
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out += static_cast<char>(v >> bits & 0xff);
        }
    }
    // Six bits left over cannot end a valid text.
    return bits < 6 && padding <= 2;
}

std::string PemEncode(std::string const& label, std::string const& der) {
    std::string body = Base64Encode(der);
    std::string out = "-----BEGIN " + label + "-----\n";
    for (size_t i = 0; i < body.size(); i += 64) {
        out += body.substr(i, 64);
        out += '\n';
    }
    out += "-----END " + label + "-----\n";
    return out;
}

bool LooksLikePem(std::string const& text) {
    return text.find("-----BEGIN ") != std::string::npos;
}

bool PemDecode(std::string const& text, std::string& label, std::string& der, std::string& error) {
    size_t begin = text.find("-----BEGIN ");
    if (begin == std::string::npos) {
        error = "no PEM block";
        return false;
    }
    size_t labelStart = begin + 11;
    size_t labelEnd = text.find("-----", labelStart);
    size_t lineEnd = text.find('\n', labelStart);
    if (labelEnd == std::string::npos || (lineEnd != std::string::npos && labelEnd > lineEnd)) {
        error = "a broken PEM header line";
        return false;
    }
    label = text.substr(labelStart, labelEnd - labelStart);
    std::string const endLine = "-----END " + label + "-----";
    size_t end = text.find(endLine, labelEnd);
    if (end == std::string::npos || lineEnd == std::string::npos) {
        error = "no \"" + endLine + "\" line";
        return false;
    }
    std::string body;
    size_t pos = lineEnd + 1;
    while (pos < end) {
        size_t next = text.find('\n', pos);
        if (next == std::string::npos || next > end)
            next = end;
        std::string line = qor::Trim(text.substr(pos, next - pos));
        // Header lines ("Proc-Type: ...") are not part of the data.
        if (line.find(':') == std::string::npos)
            body += line;
        pos = next + 1;
    }
    if (!Base64Decode(body, der) || der.empty()) {
        error = "the PEM block does not hold valid base64";
        return false;
    }
    return true;
}

bool DerHeader(std::string const& der, size_t offset, unsigned char& tag, size_t& headerLength,
               size_t& contentLength) {
    if (offset + 2 > der.size())
        return false;
    tag = static_cast<unsigned char>(der[offset]);
    unsigned char first = static_cast<unsigned char>(der[offset + 1]);
    if (first < 0x80) {
        headerLength = 2;
        contentLength = first;
    } else {
        size_t count = first & 0x7f;
        if (count == 0 || count > 4 || offset + 2 + count > der.size())
            return false;
        contentLength = 0;
        for (size_t i = 0; i < count; ++i) {
            contentLength = contentLength << 8 | static_cast<unsigned char>(der[offset + 2 + i]);
        }
        headerLength = 2 + count;
    }
    return offset + headerLength + contentLength <= der.size();
}

void RefuseBinaryOnTerminal(std::string const& what, std::string const& path, bool binary) {
    if (binary && (path.empty() || path == "-") && ::isatty(STDOUT_FILENO)) {
        Usage(what, "will not write binary DER to a terminal; use --pem or -o FILE");
    }
}

void WriteOutput(std::string const& what, std::string const& data, std::string const& path,
                 bool binary, bool privateFile) {
    RefuseBinaryOnTerminal(what, path, binary);
    if (path.empty() || path == "-") {
        if (!WriteAll(STDOUT_FILENO, data)) {
            Fail(what, std::string("cannot write to standard output: ") + std::strerror(errno));
        }
        return;
    }
    int fd =
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, privateFile ? 0600 : 0644);
    if (fd < 0) {
        Fail(what, "cannot write " + path + ": " + std::strerror(errno));
    }
    // A file that existed keeps its mode on open; a key must not stay readable by others.
    if (privateFile && ::fchmod(fd, 0600) != 0) {
        int err = errno;
        ::close(fd);
        Fail(what, "cannot restrict " + path + " to its owner: " + std::strerror(err));
    }
    bool ok = WriteAll(fd, data);
    int err = errno;
    if (::close(fd) != 0 && ok) {
        ok = false;
        err = errno;
    }
    if (!ok) {
        Fail(what, "cannot write " + path + ": " + std::strerror(err));
    }
}

}  // namespace qortool
