/* mark.h - a flag that is set for as long as a call lasts, also when a callback throws. */
#pragma once

namespace kesto {

class Mark {
  public:
    explicit Mark(bool &flag) : flag_(flag) { flag_ = true; }
    ~Mark() { flag_ = false; }
    Mark(const Mark &) = delete;
    Mark &operator=(const Mark &) = delete;

  private:
    bool &flag_;
};

}  // namespace kesto
