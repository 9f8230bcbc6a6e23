// A fresh directory under /tmp for one test, removed with everything in it
// when its owner goes: every suite's scratch space comes from here.
//
// Threading: owned by one test; Path() and Join() may be read from any
// thread while the owner lives.
// Lifetime: removal opens up directories a test made read-only first, so
// a test that locks part of its tree down needs no clean-up of its own.
#pragma once

#include <string>

namespace orin::xfer::test {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return mPath; }
    // The path of `relative` inside the directory.
    std::string Join(const std::string& relative) const { return mPath + "/" + relative; }
    // The same as Join(), for tests that read better as `scratch / "name"`.
    std::string operator/(const std::string& relative) const { return Join(relative); }

private:
    std::string mPath;
};

}  // namespace orin::xfer::test
