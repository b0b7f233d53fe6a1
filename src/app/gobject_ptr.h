// Owners for GLib-family handles: each holds one reference and drops it when
// it goes away. Copy and move follow std::unique_ptr: an owner is moved,
// never copied, so every reference has exactly one owner.
#pragma once

#include <glib-object.h>

#include <utility>

namespace qor {

template <typename T, void (*Unref)(T*)>
class GHandle {
 public:
  GHandle() = default;
  // Takes over a reference the caller already owns.
  static GHandle adopt(T* handle) { return GHandle(handle); }

  ~GHandle() { reset(); }
  GHandle(const GHandle&) = delete;
  GHandle& operator=(const GHandle&) = delete;
  GHandle(GHandle&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
  GHandle& operator=(GHandle&& other) noexcept {
    if (this != &other) {
      reset();
      handle_ = std::exchange(other.handle_, nullptr);
    }
    return *this;
  }

  T* get() const { return handle_; }
  explicit operator bool() const { return handle_ != nullptr; }
  void reset() {
    if (T* handle = std::exchange(handle_, nullptr)) Unref(handle);
  }

 private:
  explicit GHandle(T* handle) : handle_(handle) {}
  T* handle_ = nullptr;
};

// A GObject of any class. retain() also sinks a floating reference, which is
// how newly created widgets arrive.
template <typename T>
class GObjectPtr {
 public:
  GObjectPtr() = default;
  static GObjectPtr adopt(T* object) { return GObjectPtr(object); }
  static GObjectPtr retain(T* object) {
    if (object) g_object_ref_sink(object);
    return GObjectPtr(object);
  }

  ~GObjectPtr() { reset(); }
  GObjectPtr(const GObjectPtr&) = delete;
  GObjectPtr& operator=(const GObjectPtr&) = delete;
  GObjectPtr(GObjectPtr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  GObjectPtr& operator=(GObjectPtr&& other) noexcept {
    if (this != &other) {
      reset();
      object_ = std::exchange(other.object_, nullptr);
    }
    return *this;
  }

  T* get() const { return object_; }
  explicit operator bool() const { return object_ != nullptr; }
  void reset() {
    if (T* object = std::exchange(object_, nullptr)) g_object_unref(object);
  }

 private:
  explicit GObjectPtr(T* object) : object_(object) {}
  T* object_ = nullptr;
};

// Plain GLib allocations (strings returned with "transfer full").
inline void freeString(char* text) {
  g_free(text);
}
using GCharPtr = GHandle<char, freeString>;

inline void unrefUri(GUri* uri) {
  g_uri_unref(uri);
}
using GUriPtr = GHandle<GUri, unrefUri>;

inline void freeError(GError* error) {
  g_error_free(error);
}
using GErrorPtr = GHandle<GError, freeError>;

}  // namespace qor
