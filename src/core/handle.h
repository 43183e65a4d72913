// Owners of C handles that live for one scope: std::unique_ptr<FILE, am::Closer<std::fclose>> and the like.
// Where closing can fail and that is reported (record files), close by hand.
#pragma once
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace am {

template <auto Close>
struct Closer {
    template <class T>
    void operator()(T *handle) const {
        (void)Close(handle);
    }
};

using File = std::unique_ptr<FILE, Closer<std::fclose>>;
using CText = std::unique_ptr<char, Closer<std::free>>;  // text from malloc

}  // namespace am
