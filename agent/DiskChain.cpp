#include "agent/DiskChain.h"

#include <algorithm>
#include <filesystem>

#include "agent/detail/StagedFile.h"
#include "agent/detail/VmdkDescriptor.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

std::string WithSlashes(std::string name) {
    std::replace(name.begin(), name.end(), '\\', '/');
    return name;
}

bool Exists(const std::string& path) {
    std::error_code ignored;  // what can't be looked at isn't found
    return std::filesystem::is_regular_file(path, ignored);
}

// A chain of images, from its newest link on.
class CChainSearch {
public:
    CChainSearch(const ImageOptions_t& options, std::vector<CDiskImage>& links) : m_Options(options), m_Links(links) {}

    CZuError Run(const std::string& path) {
        ZU_RETURN_IF_ERROR(m_Links.emplace_back().Open(path, m_Options));
        m_LinkOptions.allowOutside = m_Options.allowOutside;
        std::vector<std::string> given = m_Options.parents;
        while (m_Links.back().HasParent())
            ZU_RETURN_IF_ERROR(AddParent(given));
        if (!given.empty())
            return Refusal(m_Links.back().Path() + ": builds on no other image, but " + given.back() +
                           " is given as its parent");
        std::reverse(m_Links.begin(), m_Links.end());
        return CZuError();
    }

private:
    CZuError AddParent(std::vector<std::string>& given) {
        const CDiskImage& child = m_Links.back();
        std::string path;
        if (!m_Options.parents.empty()) {
            if (given.empty())
                return Refusal(child.Path() +
                               ": builds on another image, which isn't among the links given by --chain");
            path = given.back();
            given.pop_back();
        } else {
            ZU_RETURN_IF_ERROR(FindParent(child, path));
        }
        CDiskImage parent;
        ZU_RETURN_IF_ERROR(parent.Open(path, m_LinkOptions));
        ZU_RETURN_IF_ERROR(CheckParent(child, parent));
        m_Links.push_back(std::move(parent));
        return CZuError();
    }

    // Where the image says that its parent is, and then beside the image: images are moved together.
    CZuError FindParent(const CDiskImage& child, std::string& path) const {
        std::vector<std::string> names = child.Parent()->names;
        for (const std::string& name : child.Parent()->names)
            names.push_back(std::filesystem::path(WithSlashes(name)).filename().string());
        CZuError refused;
        for (const std::string& name : names) {
            CZuError error = ResolveExtentName(DirectoryOf(child.Path()).string(), name, m_Options.allowOutside, path);
            if (!error.IsErrorSet() && Exists(path))
                return CZuError();
            if (error.IsErrorSet())
                refused = error;
        }
        return Missing(child, refused);
    }

    static CZuError Missing(const CDiskImage& child, const CZuError& refused) {
        const std::string name = child.ParentName();
        if (name.empty())
            return Refusal(child.Path() + ": builds on another image (" + child.Parent()->identity +
                           ") and doesn't say on which; give the chain with --chain");
        std::string text = child.Path() + ": its parent " + name + " (" + child.Parent()->identity +
                           ") isn't there, nor is it beside the image; give the chain with --chain";
        if (refused.IsErrorSet())
            text += ", or follow the name out of the image's directory with --allow-outside";
        return Refusal(text);
    }

    CZuError CheckParent(const CDiskImage& child, const CDiskImage& parent) const {
        const bool isRepeated = std::any_of(m_Links.begin(), m_Links.end(), [&](const CDiskImage& each) {
            return IsSameFile(each.Path(), parent.Path());
        });
        if (isRepeated)
            return Refusal(parent.Path() + ": is a link of its own chain, which so has no end");
        if (parent.Product() != child.Product())
            return Refusal(parent.Path() + ": is an image of another kind than " + child.Path() +
                           ", which builds on it");
        if (parent.Identity() != child.Parent()->identity)
            return Refusal(parent.Path() + ": has changed, or isn't the parent of " + child.Path() + ": it is " +
                           parent.Identity() + " where " + child.Parent()->identity + " is needed");
        if (parent.TotalSectors() != child.TotalSectors())
            return Refusal(
                CZuString::Format("{1}: has {2} sectors where {3}, which builds on it, has {4}; such a chain "
                                  "can't be read",
                                  parent.Path(), parent.TotalSectors(), child.Path(), child.TotalSectors()));
        return CZuError();
    }

    const ImageOptions_t& m_Options;
    ImageOptions_t m_LinkOptions;  // of the older links: what was said of the newest needn't hold for them
    std::vector<CDiskImage>& m_Links;
};

}  // namespace

CZuError OpenDiskChain(const std::string& path, const ImageOptions_t& options, std::vector<CDiskImage>& links) {
    links.clear();
    return CChainSearch(options, links).Run(path);
}
