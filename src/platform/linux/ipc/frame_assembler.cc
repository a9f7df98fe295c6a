#include "platform/linux/ipc/frame_assembler.h"

#include <algorithm>
#include <cstring>

#include "platform/ipc.h"

namespace zu::platform {

Body AllocateBody(size_t size) {
  constexpr size_t kCacheLine = 64;
  // Alignment costs more than it gains for what fits the nearest cache.
  constexpr size_t kSmall = 8192;
  if (size <= kSmall) {
    return Body(static_cast<char*>(std::malloc(std::max<size_t>(size, 1))));
  }
  const size_t lines = (size + kCacheLine - 1) / kCacheLine;
  return Body(
      static_cast<char*>(std::aligned_alloc(kCacheLine, lines * kCacheLine)));
}

bool IsClientHeader(const FrameHeader& header) {
  if (header.magic != kFrameMagic || header.version != kFrameVersion) {
    return false;
  }
  const bool has_data = (header.flags & kFrameHasData) != 0;
  const bool in_region = (header.flags & kFrameInRegion) != 0;
  switch (header.kind) {
    case FrameKind::kRequest:
    case FrameKind::kMessage:
      if ((header.flags & ~(kFrameHasData | kFrameInRegion)) != 0) return false;
      if (!has_data && (in_region || header.length != 0)) return false;
      // A region lent without an answer would never come back.
      if (in_region && header.kind != FrameKind::kRequest) return false;
      return !in_region || header.length <= kRegionSize;
    case FrameKind::kRegion:
      return header.flags == 0 && header.length == kRegionSize;
    default:
      return false;
  }
}

FrameAssembler::Destination FrameAssembler::NextDestination(
    std::span<char> scratch) {
  if (skip_ > 0) {
    return {scratch.first(std::min<uint64_t>(skip_, scratch.size())), {}};
  }
  if (body_) {
    return {{body_.get() + body_size_, header_.length - body_size_}, {}};
  }
  return {std::span(header_bytes_).subspan(header_size_), scratch};
}

// Begins the frame whose header is complete; `rest` is what came behind it.
bool FrameAssembler::StartFrame(std::string_view& rest, const Visitor& visit) {
  std::memcpy(&header_, header_bytes_.data(), sizeof(header_));
  header_size_ = 0;
  if (!IsClientHeader(header_)) return false;
  if (header_.kind == FrameKind::kRegion ||
      (header_.flags & kFrameInRegion) != 0) {
    return visit({header_, {}, nullptr});
  }
  if (header_.length > kMaxBodySize) {
    // Answered from the length alone; the bytes are passed over as they come.
    const size_t here = std::min<uint64_t>(header_.length, rest.size());
    skip_ = header_.length - here;
    rest = rest.substr(here);
    return visit({header_, {}, nullptr});
  }
  if (header_.length <= rest.size()) {
    const auto body = rest.substr(0, header_.length);
    rest = rest.substr(header_.length);
    return visit({header_, body, nullptr});
  }
  body_ = AllocateBody(header_.length);
  if (!body_) return false;
  std::copy(rest.begin(), rest.end(), body_.get());
  body_size_ = rest.size();
  rest = {};
  return true;
}

bool FrameAssembler::ConsumeStream(std::string_view rest,
                                   const Visitor& visit) {
  while (!rest.empty()) {
    const size_t part =
        std::min(header_bytes_.size() - header_size_, rest.size());
    std::copy_n(rest.begin(), part, header_bytes_.begin() + header_size_);
    header_size_ += part;
    rest = rest.substr(part);
    if (header_size_ < header_bytes_.size()) return true;
    if (!StartFrame(rest, visit)) return false;
  }
  return true;
}

bool FrameAssembler::Consume(size_t size, std::span<char> scratch,
                             const Visitor& visit) {
  if (skip_ > 0) {
    skip_ -= size;
    return true;
  }
  if (body_) {
    body_size_ += size;
    if (body_size_ < header_.length) return true;
    const std::string_view body(body_.get(), header_.length);
    return visit({header_, body, std::move(body_)});
  }
  // The header's missing part came first, then the scratch bytes.
  const size_t part = std::min(header_bytes_.size() - header_size_, size);
  header_size_ += part;
  if (header_size_ < header_bytes_.size()) return true;
  std::string_view rest(scratch.data(), size - part);
  return StartFrame(rest, visit) && ConsumeStream(rest, visit);
}

}  // namespace zu::platform
