/// Identifiers of containers and volumes.
#pragma once

#include <array>
#include <cstdint>

namespace fskit {

/// RFC 4122 byte order, as NSUUID's bytes.
using UUID = std::array<std::uint8_t, 16>;

/// A value; two volumes with the same bytes are the same volume to the host.
struct FSEntityIdentifier {
    UUID uuid{};

    friend bool operator==(const FSEntityIdentifier&, const FSEntityIdentifier&) = default;
};

/// A type of its own, so that a volume's identifier is not passed for a container's.
struct FSVolumeIdentifier : FSEntityIdentifier {};

/// A unary file system's container and volume carry the same identifier.
struct FSContainerIdentifier : FSEntityIdentifier {
    /// The volume's identifier, which has the same bytes.
    FSVolumeIdentifier volumeIdentifier() const { return {{uuid}}; }
};

} // namespace fskit
