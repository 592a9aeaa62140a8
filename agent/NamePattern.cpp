#include "agent/NamePattern.h"

#include <algorithm>

#include "agent/detail/NtfsNames.h"
#include "platform/CaseFolding.h"

namespace {

constexpr size_t None = std::u16string::npos;

std::u16string Folded(const std::string& text) {
    std::u16string folded = NtfsNameOfText(text);
    std::transform(folded.begin(), folded.end(), folded.begin(), FoldCase);
    return folded;
}

}  // namespace

CNamePattern::CNamePattern(const std::string& pattern) : m_Pattern(Folded(pattern)) {}

// Where the characters behind a star don't fit, it takes one more. Only the last star ever has to, so that no name
// takes longer than its length times the pattern's.
bool CNamePattern::Matches(const std::string& name) const {
    const std::u16string text = Folded(name);
    size_t at = 0;
    size_t inPattern = 0;
    size_t star = None;
    size_t starEnd = 0;
    while (at < text.size()) {
        if (inPattern < m_Pattern.size() && m_Pattern[inPattern] == u'*') {
            star = inPattern++;
            starEnd = at;
        } else if (inPattern < m_Pattern.size() && (m_Pattern[inPattern] == u'?' || m_Pattern[inPattern] == text[at])) {
            ++inPattern;
            ++at;
        } else if (star != None) {
            inPattern = star + 1;
            at = ++starEnd;
        } else {
            return false;
        }
    }
    return m_Pattern.find_first_not_of(u'*', inPattern) == None;
}
