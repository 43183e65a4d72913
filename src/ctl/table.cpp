#include "ctl/table.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace ctl {

namespace {

constexpr size_t kGap = 2;

// Characters on the screen: a UTF-8 letter is one, however many bytes it has.
size_t shownLength(const char *text) {
    size_t length = 0;
    for (; *text; text++) length += (static_cast<unsigned char>(*text) & 0xc0) != 0x80;
    return length;
}

class Line {
  public:
    explicit Line(unsigned width) : left_(width ? width : ~0U) {}

    void cell(const char *text, size_t width, bool right, bool last, Colour colour) {
        const size_t shown = shownLength(text), pad = width - std::min(width, shown);
        if (right) blanks(pad);
        fputs(begin(colour), stdout);
        letters(text);
        fputs(end(colour), stdout);
        if (!right && !last) blanks(pad);
        if (!last) blanks(kGap);
    }

  private:
    void blanks(size_t count) {
        for (; count > 0 && left_ > 0; count--, left_--) fputc(' ', stdout);
    }
    void letters(const char *text) {
        for (; *text; text++) {
            if ((static_cast<unsigned char>(*text) & 0xc0) != 0x80 && left_-- == 0) {
                left_ = 0;
                return;
            }
            fputc(*text, stdout);
        }
    }
    size_t left_;
};

}  // namespace

void Table::add(const char *text, Colour colour) {
    if (cellCount_ == kMostRows * columnCount_) print();
    Cell &cell = cells_[cellCount_++];
    copyShown(cell.text, sizeof cell.text, text);
    cell.colour = colour;
}

void Table::printTitles(unsigned width) {
    Line line(width);
    for (size_t i = 0; i < columnCount_; i++)
        line.cell(columns_[i].title, widths_[i], columns_[i].right, i + 1 == columnCount_, Colour::strong);
    fputc('\n', stdout);
    titled_ = true;
}

void Table::print(unsigned width) {
    for (size_t i = 0; i < columnCount_; i++) widths_[i] = std::max(widths_[i], strlen(columns_[i].title));
    for (size_t i = 0; i < cellCount_; i++) {
        size_t &wide = widths_[i % columnCount_];
        wide = std::max(wide, shownLength(cells_[i].text));
    }
    if (!titled_) printTitles(width);
    for (size_t row = 0; row < rows(); row++) {
        Line line(width);
        for (size_t i = 0; i < columnCount_; i++) {
            const Cell &cell = cells_[row * columnCount_ + i];
            line.cell(cell.text, widths_[i], columns_[i].right, i + 1 == columnCount_, cell.colour);
        }
        fputc('\n', stdout);
    }
    cellCount_ = 0;
}

}  // namespace ctl
