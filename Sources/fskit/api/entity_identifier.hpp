/// Identifiers of containers and volumes.
#pragma once

#include <array>
#include <cstdint>

namespace fskit {

/// RFC 4122 byte order, as NSUUID's bytes.
using UUID = std::array<std::uint8_t, 16>;

struct FSEntityIdentifier {
    UUID uuid{};

    friend bool operator==(const FSEntityIdentifier&, const FSEntityIdentifier&) = default;
};

struct FSVolumeIdentifier : FSEntityIdentifier {};

/// A unary file system's container and volume carry the same identifier.
struct FSContainerIdentifier : FSEntityIdentifier {
    FSVolumeIdentifier volumeIdentifier() const { return {{uuid}}; }
};

} // namespace fskit
