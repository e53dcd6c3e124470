#pragma once

// What the iterators of live sets and of changes share: a position that goes forward.

namespace bmcbus::live
{

// @p Iterator derives from it and says what stands at `at_`.
template <class Iterator, class Position>
class Stepper
{
  public:
    Stepper() = default;
    explicit Stepper(Position at) : at_(at) {}

    Iterator& operator++()
    {
        ++at_;
        return static_cast<Iterator&>(*this);
    }
    Iterator operator++(int)
    {
        Iterator before = static_cast<Iterator&>(*this);
        ++at_;
        return before;
    }
    friend bool operator==(const Stepper& left, const Stepper& right)
    {
        return left.at_ == right.at_;
    }

  protected:
    Position at_{};
};

} // namespace bmcbus::live
