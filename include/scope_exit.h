// scope_exit: runs a cleanup when a function body is left early, until the
// owner takes the resource over and calls release().
#pragma once

#include <utility>

template <class F>
class scope_exit {
   public:
    explicit scope_exit(F f) : f_(std::move(f)) {}
    scope_exit(const scope_exit &) = delete;
    scope_exit &operator=(const scope_exit &) = delete;
    ~scope_exit() {
        if (armed_) f_();
    }
    void release() { armed_ = false; }

   private:
    F f_;
    bool armed_ = true;
};
