// The names that somebody may have meant.  Pure function, any thread.
#pragma once
#include <cstddef>

namespace am {

// How many letters have to be put in, taken out or changed to make one name of the other, without regard to
// case; a name that begins with the other is as near as can be.  `most` + 1 for anything farther than `most`.
unsigned nameDistance(const char *given, const char *name, unsigned most);

inline constexpr unsigned kNearEnough = 3;

// The best of the names that were offered, the nearest first.
class NearestNames {
  public:
    static constexpr size_t kMost = 3;

    explicit NearestNames(const char *given) : given_(given) {}
    void offer(const char *name);  // which has to stay

    size_t count() const { return count_; }
    const char *operator[](size_t i) const { return names_[i].name; }

  private:
    struct Near {
        const char *name;
        unsigned distance;
    };
    const char *given_;
    Near names_[kMost]{};
    size_t count_ = 0;
};

}  // namespace am
