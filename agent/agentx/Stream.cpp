// Two buffers and a socket.
#include "agent/agentx/Stream.h"
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <sys/socket.h>
#include <utility>

namespace Agent::AgentX {

namespace {

constexpr std::size_t pieceSize = 65536;
/// An output buffer that was larger once is not kept.
constexpr std::size_t keptSize = 65536;

bool isForLater(int error) {
  return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

} // namespace

void Stream::receive() {
  std::ranges::copy(arrived(), input_.begin());
  arrived_ -= std::exchange(taken_, 0);
  if (input_.size() < arrived_ + pieceSize)
    input_.resize(arrived_ + pieceSize);
  auto const count = recv(socket_.get(), input_.data() + arrived_, pieceSize, 0);
  auto const error = errno;
  arrived_ += count > 0 ? static_cast<std::size_t>(count) : 0;
  if (count == 0)
    throw StreamLost("it has closed the connection");
  if (count < 0 && !isForLater(error))
    throw StreamLost(std::strerror(error));
}

std::optional<Stream::Message> Stream::next() {
  if (arrived().size() < headerSize)
    return std::nullopt;
  auto const decoded = decodeHeader(arrived().first<headerSize>());
  if (auto const * malformed = std::get_if<Malformed>(&decoded))
    throw StreamLost(fmt::format("it sends {}", malformed->reason));
  auto const & frame = std::get<Frame>(decoded);
  auto const size = headerSize + frame.payloadSize;
  if (arrived().size() < size)
    return std::nullopt;
  Message const message{frame.header, arrived().subspan(headerSize, frame.payloadSize)};
  taken_ += size;
  return message;
}

bool Stream::hasNext() const {
  if (arrived().size() < headerSize)
    return false;
  auto const decoded = decodeHeader(arrived().first<headerSize>());
  auto const * frame = std::get_if<Frame>(&decoded);
  return frame == nullptr || arrived().size() >= headerSize + frame->payloadSize;
}

bool Stream::put(Header const & header, Body const & body) {
  auto const before = output_.size();
  encode(output_, header, body);
  auto const fits = output_.size() - before <= headerSize + largestPayload;
  if (!fits)
    output_.resize(before);
  return fits;
}

void Stream::flush() {
  while (unsent() != 0) {
    auto const count = send(socket_.get(), output_.data() + sent_, unsent(), MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR)
      continue;
    if (count < 0 && !isForLater(errno))
      throw StreamLost(std::strerror(errno));
    if (count < 0)
      break;
    sent_ += static_cast<std::size_t>(count);
  }
  output_.erase(0, sent_);
  sent_ = 0;
  if (output_.empty() && output_.capacity() > keptSize)
    output_.shrink_to_fit();
}

} // namespace Agent::AgentX
