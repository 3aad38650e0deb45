// What the benchmark programs share.
#pragma once

#include "zel.h"

namespace zel::bench {

// A context for the length of a benchmark; the programs add the objects they measure on.
class ContextOwner {
 public:
  ContextOwner() : ctx_(Zel004(nullptr)) {}
  ~ContextOwner() { Zel001(ctx_); }
  ContextOwner(const ContextOwner &) = delete;
  ContextOwner &operator=(const ContextOwner &) = delete;
  ZelContext *get() const { return ctx_; }

 protected:
  ZelContext *ctx_;
};

}  // namespace zel::bench
