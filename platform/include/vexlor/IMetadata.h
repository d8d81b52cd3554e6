#pragma once
#include <cstddef>
#include <cstdint>
#include <map>

namespace NSCam {

// Metadata container with value semantics: a copy is independent of its source.
class IMetadata {
public:
    IMetadata() = default;
    IMetadata(IMetadata const&);
    IMetadata& operator=(IMetadata const&);
    ~IMetadata();

    void update(uint32_t tag, int64_t value) { mEntries[tag] = value; }
    bool get(uint32_t tag, int64_t& out) const;
    size_t count() const { return mEntries.size(); }

    static int64_t liveCount();  // containers alive in the process (a test seam)

private:
    std::map<uint32_t, int64_t> mEntries;
};

}  // namespace NSCam
