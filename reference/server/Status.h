// Status: the outcome of a reference-server operation that can fail.
//
// A status is OK or carries a kind and a message meant for a person reading a log
// line or a command's output. Plain value; safe to copy between threads.
#pragma once

#include <string>
#include <utility>

namespace zolvani::refserver {

class Status {
 public:
  enum class Kind {
    kOk,
    kInvalidArgument,
    kNotFound,
    kIOError,
    kCorruption,
    kAlreadyExists,       // the thing to add is there already
    kPermissionDenied,    // the caller may not do this
    kFailedPrecondition,  // the target is not in a state that allows it
    kUnavailable,         // a shared resource (the database) cannot serve now; try again
    kReplayed             // a signed change whose signature was accepted before
  };

  Status() = default;

  static Status OK() { return Status(); }
  static Status InvalidArgument(std::string message) {
    return Status(Kind::kInvalidArgument, std::move(message));
  }
  static Status NotFound(std::string message) {
    return Status(Kind::kNotFound, std::move(message));
  }
  static Status IOError(std::string message) { return Status(Kind::kIOError, std::move(message)); }
  static Status Corruption(std::string message) {
    return Status(Kind::kCorruption, std::move(message));
  }
  static Status AlreadyExists(std::string message) {
    return Status(Kind::kAlreadyExists, std::move(message));
  }
  static Status PermissionDenied(std::string message) {
    return Status(Kind::kPermissionDenied, std::move(message));
  }
  static Status FailedPrecondition(std::string message) {
    return Status(Kind::kFailedPrecondition, std::move(message));
  }

  static Status Unavailable(std::string message) {
    return Status(Kind::kUnavailable, std::move(message));
  }
  static Status Replayed(std::string message) {
    return Status(Kind::kReplayed, std::move(message));
  }

  bool ok() const { return kind_ == Kind::kOk; }
  bool IsNotFound() const { return kind_ == Kind::kNotFound; }
  bool IsInvalidArgument() const { return kind_ == Kind::kInvalidArgument; }
  bool IsAlreadyExists() const { return kind_ == Kind::kAlreadyExists; }
  bool IsPermissionDenied() const { return kind_ == Kind::kPermissionDenied; }
  bool IsFailedPrecondition() const { return kind_ == Kind::kFailedPrecondition; }
  bool IsUnavailable() const { return kind_ == Kind::kUnavailable; }
  bool IsReplayed() const { return kind_ == Kind::kReplayed; }
  Kind kind() const { return kind_; }
  const std::string& message() const { return message_; }

  // "OK", or the kind followed by the message, for log lines and command output.
  std::string ToString() const {
    switch (kind_) {
      case Kind::kOk:
        return "OK";
      case Kind::kInvalidArgument:
        return "Invalid argument: " + message_;
      case Kind::kNotFound:
        return "Not found: " + message_;
      case Kind::kIOError:
        return "IO error: " + message_;
      case Kind::kCorruption:
        return "Corruption: " + message_;
      case Kind::kAlreadyExists:
        return "Already exists: " + message_;
      case Kind::kPermissionDenied:
        return "Permission denied: " + message_;
      case Kind::kFailedPrecondition:
        return "Failed precondition: " + message_;
      case Kind::kUnavailable:
        return "Unavailable: " + message_;
      case Kind::kReplayed:
        return "Replayed: " + message_;
    }
    return message_;
  }

 private:
  Status(Kind kind, std::string message) : kind_(kind), message_(std::move(message)) {}

  Kind kind_ = Kind::kOk;
  std::string message_;
};

}  // namespace zolvani::refserver
