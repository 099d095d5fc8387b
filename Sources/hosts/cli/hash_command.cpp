// hash: digests of files, in the form that sha256sum(1) checks.
#include "hosts/cli/arguments.hpp"
#include "hosts/cli/command_table.hpp"
#include "hosts/cli/copy/transfer.hpp"
#include "hosts/cli/item_text.hpp"
#include "hosts/cli/named_stream.hpp"
#include "hosts/cli/report.hpp"
#include "hosts/cli/terminal.hpp"
#include "hosts/cli/text.hpp"
#include "hosts/cli/tree_visit.hpp"

#include <fmt/format.h>

#include <array>
#include <memory>
#include <openssl/evp.h>
#include <span>

namespace tavelin::cli {
namespace {

struct HashCommand {
    VolumeArguments volume;
    std::vector<std::string> paths;
    bool json = false;
};

/// SHA-256 of bytes that come in pieces. Move-only.
class Digest {
  public:
    Digest() : context_(EVP_MD_CTX_new(), EVP_MD_CTX_free) {
        require(context_ != nullptr &&
                EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1);
    }
    void add(std::span<const std::byte> bytes) {
        require(EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()) == 1);
    }
    /// In lower-case hexadecimal digits. Called once, last.
    std::string text() {
        std::array<unsigned char, EVP_MAX_MD_SIZE> value{};
        unsigned int length = 0;
        require(EVP_DigestFinal_ex(context_.get(), value.data(), &length) == 1);
        std::string result;
        for (unsigned int i = 0; i < length; ++i) {
            result += fmt::format("{:02x}", value[i]);
        }
        return result;
    }

  private:
    static void require(bool done) {
        if (!done) {
            throw Failure("the system's library for digests does not offer SHA-256");
        }
    }
    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context_;
};

/// The name as sha256sum(1) writes it: a line with a backslash in front has escapes.
std::string manifestLine(const std::string& digest, const std::string& path) {
    std::string name;
    for (const char letter : path) {
        name += letter == '\\'   ? "\\\\"
                : letter == '\n' ? "\\n"
                : letter == '\r' ? "\\r"
                                 : std::string(1, letter);
    }
    return (name == path ? "" : "\\") + digest + "  " + name + "\n";
}

class Hasher {
  public:
    Hasher(VolumeClient& volume, bool json)
        : volume_(volume), json_(json), buffer_(kTransferBytes) {}

    void hash(const std::string& path, const Found& file) {
        Digest digest;
        std::uint64_t offset = 0;
        while (const std::size_t count =
                   valueOf(volume_.read(file.item, offset, buffer_), path, file.attributes)) {
            throwIfInterrupted();
            digest.add(std::span(buffer_).first(count));
            offset += count;
        }
        tell(path, offset, digest.text());
    }

    void hash(const std::string& path, std::span<const std::byte> bytes) const {
        Digest digest;
        digest.add(bytes);
        tell(path, bytes.size(), digest.text());
    }

  private:
    void tell(const std::string& path, std::uint64_t size, const std::string& digest) const {
        if (json_) {
            addItem(JSONObject().add("path", rooted(path)).add("size", size).add("sha256", digest));
        } else {
            const std::string line = manifestLine(digest, path);
            print(isOutputTerminal() ? escaped(line.substr(0, line.size() - 1)) + "\n" : line);
        }
    }

    VolumeClient& volume_;
    const bool json_;
    std::vector<std::byte> buffer_;
};

void runHash(const HashCommand& command) {
    withVolume(command.volume, Access::read, [&](Session& session) {
        VolumeClient& volume = session.volume();
        Hasher hasher(volume, command.json);
        bool isComplete = true;
        const TreeVisitor visitor{
            .visit =
                [&](const TreeItem& item) {
                    if (item.entry.type != fskit::FSItemType::file) {
                        return item.entry.type == fskit::FSItemType::directory;
                    }
                    try {
                        hasher.hash(
                            item.path,
                            valueOf(volume.lookup(item.directory, item.entry.name), item.path));
                    } catch (const ItemFailure& failure) {
                        tellFailure(failure);
                        isComplete = false;
                    }
                    return false;
                },
            .leave = {}};
        forEachPath(command.paths, [&](const std::string& path) {
            const Named named = resolveNamed(volume, path);
            const Found& found = named.found;
            if (named.stream) {
                hasher.hash(path, readStream(volume, named, path));
            } else if (found.attributes.type() == fskit::FSItemType::directory) {
                isComplete &=
                    visitTree(volume, found.item, lastComponent(path).empty() ? "" : path, visitor);
            } else if (isSpecial(found.attributes.type())) {
                throwNoContent(path, found.attributes);
            } else {
                hasher.hash(path, found);
            }
        });
        flushOutput();
        if (!isComplete) {
            throw Failure(""); // told where it happened
        }
    });
}

} // namespace

void defineHash(CLI::App& command) {
    const auto arguments = std::make_shared<HashCommand>();
    addVolume(command, arguments->volume);
    addPaths(command, "PATH", arguments->paths, 1, "Files, and directories with all in them");
    addJSON(command, arguments->json);
    setWork(command, [arguments] { runHash(*arguments); });
}

} // namespace tavelin::cli
