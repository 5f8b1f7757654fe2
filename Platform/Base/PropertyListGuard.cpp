#include <Base/BinaryPropertyList.h>
#include <Base/PropertyListGuard.h>

#include <algorithm>
#include <vector>

namespace Base {
namespace {

// The nesting of elements in XML text, as far as it matters for recursion. What two readers could take for
// different things (a bracket in quotes, a declaration of the text's own) is refused: what this passes over
// as a comment or a text must be one to the library, too.
class XmlScanner {
public:
    explicit XmlScanner(std::string_view text) : mText(text) {}

    // False when the text nests too deep, breaks off inside a construct or has one that is ambiguous.
    bool isShallow() {
        for (;;) {
            mPosition = mText.find('<', mPosition);
            if (mPosition == std::string_view::npos)
                return true;
            if (!passConstruct() || mDepth > PropertyListGuard::kMaximumDepth)
                return false;
        }
    }

private:
    // Past `begin`, which must stand here, and the next `end` behind it; the two may not share a character.
    bool pass(std::string_view begin, std::string_view end) {
        if (mText.substr(mPosition, begin.size()) != begin)
            return false;
        const std::size_t found = mText.find(end, mPosition + begin.size());
        mIsBroken = found == std::string_view::npos || found != mText.find(end, mPosition + 1);
        mPosition = mIsBroken ? mText.size() : found + end.size();
        return true;
    }
    bool passConstruct() {
        if (pass("<!--", "-->") || pass("<![CDATA[", "]]>") || pass("<?", "?>"))
            return !mIsBroken;
        const std::size_t end = mText.find('>', mPosition);
        if (end == std::string_view::npos)
            return false;
        const std::string_view inside = mText.substr(mPosition + 1, end - mPosition - 1);
        mPosition = end + 1;
        if (!isUnambiguous(inside))
            return false;
        if (inside.starts_with('!'))
            return inside.starts_with("!DOCTYPE");
        if (inside.starts_with('/'))
            mDepth = std::max(0, mDepth - 1);
        else if (!inside.ends_with('/'))
            ++mDepth;
        return true;
    }
    static bool isUnambiguous(std::string_view inside) {
        const auto isEven = [&](char quote) {
            return std::count(inside.begin(), inside.end(), quote) % 2 == 0;
        };
        return inside.find_first_of("<[") == std::string_view::npos && isEven('"') && isEven('\'');
    }

    const std::string_view mText;
    std::size_t mPosition = 0;
    int mDepth = 0;
    bool mIsBroken = false;
};

} // namespace

bool PropertyListGuard::isBinary(std::string_view bytes) {
    return BinaryPropertyList::isBinary(bytes);
}

bool PropertyListGuard::isSafeBinary(std::string_view bytes) {
    return bytes.size() <= kMaximumSize && isSafe(BinaryPropertyList(bytes));
}

bool PropertyListGuard::isSafe(const BinaryPropertyList& list) {
    struct Level {
        BinaryPropertyList::Node container;
        std::uint64_t next = 0; // of its keys and values
        std::uint64_t keys = 0;

        bool isDone() const { return next == keys + container.count(); }
        bool isAtKey() const { return next < keys; }
        BinaryPropertyList::Node take() {
            const std::uint64_t index = next++;
            return container.isArray() ? container.element(index)
                   : index < keys      ? container.key(index)
                                       : container.value(index - keys);
        }
    };
    std::vector<Level> path; // from the root to the container whose children are being looked at
    std::uint64_t size = 0;
    std::uint64_t objects = 0;
    BinaryPropertyList::Node node = list.root();
    for (bool mustBeText = false;;) {
        if (!node || (mustBeText && !node.isText()))
            return false;
        size += node.size();
        if (++objects > kMaximumObjects || size > kMaximumSize)
            return false;
        if (node.count() > 0) {
            if (path.size() >= static_cast<std::size_t>(kMaximumDepth))
                return false;
            path.push_back({.container = node, .keys = node.isDictionary() ? node.count() : 0});
        }
        while (!path.empty() && path.back().isDone())
            path.pop_back();
        if (path.empty())
            return true;
        mustBeText = path.back().isAtKey();
        node = path.back().take();
    }
}

bool PropertyListGuard::isSafeXml(std::string_view bytes) {
    return bytes.size() <= kMaximumSize && bytes.find('\0') == std::string_view::npos &&
           XmlScanner(bytes).isShallow();
}

} // namespace Base
