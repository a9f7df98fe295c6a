// Signature blobs byte by byte: what reading and signing share.
//
// Everything here is pure.
#ifndef ZU_PLATFORM_LINUX_SIGNING_MACHO_MACHO_LAYOUT_H_
#define ZU_PLATFORM_LINUX_SIGNING_MACHO_MACHO_LAYOUT_H_

#include <cstddef>
#include <cstdint>

#include "support/macho.h"

namespace zu::platform {

inline constexpr uint32_t kSignatureCommand = 0x1d;
inline constexpr size_t kSignatureCommandSize = 16;

// Signature blobs: a magic number, the whole blob's size, then its content.
inline constexpr uint32_t kEmbeddedSignatureMagic = 0xfade0cc0;
inline constexpr uint32_t kCodeDirectoryMagic = 0xfade0c02;
inline constexpr uint32_t kRequirementsMagic = 0xfade0c01;
inline constexpr uint32_t kWrapperMagic = 0xfade0b01;
inline constexpr uint32_t kEntitlementsMagic = 0xfade7171;
inline constexpr uint32_t kDerEntitlementsMagic = 0xfade7172;
inline constexpr size_t kBlobHeaderSize = 8;

// The slots of an embedded signature that are no directory's special slots.
inline constexpr uint32_t kDirectorySlot = 0;
inline constexpr uint32_t kFirstAlternateSlot = 0x1000;
inline constexpr uint32_t kLastAlternateSlot = 0x1004;
inline constexpr uint32_t kCmsSlot = 0x10000;

// A code directory's fields, and how long it is at least from which version
// on.
namespace directory_field {
inline constexpr size_t kVersion = 8;
inline constexpr size_t kFlags = 12;
inline constexpr size_t kHashOffset = 16;
inline constexpr size_t kIdentifierOffset = 20;
inline constexpr size_t kSpecialSlots = 24;
inline constexpr size_t kCodeSlots = 28;
inline constexpr size_t kCodeLimit = 32;
inline constexpr size_t kHashSize = 36;
inline constexpr size_t kHashType = 37;
inline constexpr size_t kPageShift = 39;
inline constexpr size_t kScatterOffset = 44;
inline constexpr size_t kTeamOffset = 48;
inline constexpr size_t kCodeLimit64 = 56;
inline constexpr size_t kExecutableSegment = 64;  // Base, limit, flags.
}  // namespace directory_field

inline constexpr uint32_t kEarliestDirectory = 0x20001;
inline constexpr uint32_t kDirectoryWithScatter = 0x20100;
inline constexpr uint32_t kDirectoryWithTeam = 0x20200;
inline constexpr uint32_t kDirectoryWithCodeLimit64 = 0x20300;
inline constexpr uint32_t kDirectoryWithExecutableSegment = 0x20400;

// The size of the fixed part in a directory of this version.
size_t DirectoryHeaderSize(uint32_t version);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_MACHO_MACHO_LAYOUT_H_
