#include "app/status_text_queue.h"

#include <utility>

namespace qor {

std::optional<std::string> StatusTextQueue::arrive(std::string text) {
  if (!draining()) return text;
  waiting_.push_back(std::move(text));
  return std::nullopt;
}

std::optional<std::string> StatusTextQueue::framePainted() {
  firstFramePainted_ = true;
  showing_ = !waiting_.empty();
  if (!showing_) return std::nullopt;
  std::string next = std::move(waiting_.front());
  waiting_.pop_front();
  return next;
}

std::optional<std::string> StatusTextQueue::skipFrames() {
  firstFramePainted_ = true;
  showing_ = false;
  if (waiting_.empty()) return std::nullopt;
  std::string latest = std::move(waiting_.back());
  waiting_.clear();
  return latest;
}

}  // namespace qor
