// Tables for people: columns as wide as what stands in them, numbers to the right.
#pragma once
#include <cstddef>

#include "ctl/screen.h"

namespace ctl {

struct Column {
    const char *title;
    bool right = false;
};

// Rows are kept until they are printed, a page of a list at a time; a later page is no narrower than the ones
// before.
class Table {
  public:
    static constexpr size_t kMostColumns = 10, kMostRows = 256;

    template <size_t N>
    explicit Table(const Column (&columns)[N]) : columns_(columns), columnCount_(N) {
        static_assert(N <= kMostColumns);
    }

    // A row's cells in the order of the columns.  A full table prints itself.
    void add(const char *text, Colour colour = Colour::none);
    // What has been added, cut to `width` characters a line (0: not cut); the titles before the first row
    // only.
    void print(unsigned width = 0);
    size_t rows() const { return columnCount_ ? cellCount_ / columnCount_ : 0; }

  private:
    struct Cell {
        char text[64];
        Colour colour;
    };
    void printTitles(unsigned width);

    const Column *columns_;
    size_t columnCount_;
    size_t widths_[kMostColumns]{};
    bool titled_ = false;
    size_t cellCount_ = 0;
    Cell cells_[kMostRows * kMostColumns];
};

}  // namespace ctl
