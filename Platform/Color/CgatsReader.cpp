#include <Base/File.h>
#include <Base/Number.h>
#include <Color/CgatsReader.h>

#include <cmath>
#include <limits>
#include <optional>

namespace Color {

namespace {

// Texts of a file go into error texts; what is long or unprintable does not.
std::string quoted(std::string_view text) {
    std::string result = "\"";
    for (const char c : text.substr(0, 40)) {
        result += static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? '?' : c;
    }
    return result + (text.size() > 40 ? "...\"" : "\"");
}

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

} // namespace

std::string readWholeFile(const std::string& path) {
    Base::FileContents file = Base::readFile(path, kLargestFile, Base::FileKind::any);
    if (file.isTooLarge()) {
        throw CgatsError(path, 0, "is too large");
    }
    if (!file) {
        throw CgatsError(path, 0, file.isFolder() ? "cannot be read" : "cannot be opened");
    }
    return std::move(file.bytes);
}

CgatsReader::CgatsReader(std::string_view text, std::string name) : mRest(text), mName(std::move(name)) {
    if (text.size() > kLargestFile) {
        fail(0, "is too large");
    }
    if (mRest.starts_with("\xEF\xBB\xBF")) {
        mRest.remove_prefix(3);
    }
    readHeader();
}

void CgatsReader::fail(int line, const std::string& reason) const {
    throw CgatsError(mName, line, reason);
}

bool CgatsReader::nextLine() {
    while (!mRest.empty()) {
        const std::size_t end = std::min(mRest.find('\n'), mRest.size());
        const std::string_view line = mRest.substr(0, end);
        mRest.remove_prefix(std::min(end + 1, mRest.size()));
        if (mLine == std::numeric_limits<int>::max()) {
            fail("has too many lines");
        }
        ++mLine;
        if (line.size() > kLongestLine) {
            fail("the line is too long");
        }
        split(line);
        if (mTokenCount > 0) {
            return true;
        }
    }
    return false;
}

void CgatsReader::split(std::string_view line) {
    mTokenCount = 0;
    std::size_t at = 0;
    const auto newToken = [this]() -> std::string& {
        if (mTokenCount == mTokens.size()) {
            mTokens.emplace_back();
        }
        mTokens[mTokenCount].clear();
        return mTokens[mTokenCount++];
    };
    while (at < line.size()) {
        if (isBlank(line[at])) {
            ++at;
            continue;
        }
        if (line[at] == '#') {
            return;
        }
        std::string& token = newToken();
        if (line[at] != '"') {
            while (at < line.size() && !isBlank(line[at])) {
                if (static_cast<unsigned char>(line[at]) < 0x20) {
                    fail("the line holds a control character");
                }
                token += line[at++];
            }
            continue;
        }
        for (++at;; ++at) {
            if (at >= line.size()) {
                fail("a quoted text is not closed on its line");
            }
            if (line[at] == '"') {
                ++at;
                if (at >= line.size() || line[at] != '"') {
                    break;
                }
            }
            token += line[at];
        }
        if (at < line.size() && !isBlank(line[at])) {
            fail("text follows a closing quote");
        }
    }
}

void CgatsReader::readHeader() {
    if (!nextLine() || !mTokens[0].starts_with("CGATS")) {
        fail(std::max(mLine, 1), "is no CGATS file: the first line must be CGATS.17");
    }
    for (;;) {
        if (!nextLine()) {
            fail(0, "ends before BEGIN_DATA");
        }
        if (mTokens[0] == "BEGIN_DATA") {
            break;
        }
        if (mTokens[0] == "BEGIN_DATA_FORMAT") {
            readFormat();
        } else {
            addKeyword();
        }
    }
    if (mFieldCount == 0) {
        fail("BEGIN_DATA comes before any BEGIN_DATA_FORMAT");
    }
    mNumberOfSets = integer("NUMBER_OF_SETS");
    if (mNumberOfSets < 0) {
        fail(required("NUMBER_OF_SETS").line, "NUMBER_OF_SETS must not be negative");
    }
    if (mKeywords.contains("NUMBER_OF_FIELDS") &&
        integer("NUMBER_OF_FIELDS") != static_cast<int>(mFieldCount)) {
        fail(required("NUMBER_OF_FIELDS").line,
             "NUMBER_OF_FIELDS does not match the " + std::to_string(mFieldCount) + " fields of the format");
    }
}

void CgatsReader::addKeyword() {
    // KEYWORD declares a name that is not of the standard; it may come any number of times.
    if (mTokens[0] == "KEYWORD") {
        return;
    }
    Keyword keyword;
    keyword.line = mLine;
    for (std::size_t i = 1; i < mTokenCount; ++i) {
        keyword.value += (i > 1 ? " " : "") + mTokens[i];
    }
    const auto [place, isNew] = mKeywords.try_emplace(mTokens[0], std::move(keyword));
    if (!isNew && (mTokens[0].starts_with("CHART_") || mTokens[0].starts_with("NUMBER_OF_"))) {
        fail(mTokens[0] + " is given twice");
    }
}

void CgatsReader::readFormat() {
    if (mFieldCount != 0) {
        fail("a second BEGIN_DATA_FORMAT");
    }
    const int begin = mLine;
    for (;;) {
        if (!nextLine() || mTokens[0] == "BEGIN_DATA") {
            fail(begin, "BEGIN_DATA_FORMAT has no END_DATA_FORMAT");
        }
        if (mTokens[0] == "END_DATA_FORMAT") {
            break;
        }
        for (std::size_t i = 0; i < mTokenCount; ++i) {
            if (!mFields.try_emplace(mTokens[i], mFieldCount++).second) {
                fail("the field " + quoted(mTokens[i]) + " is given twice");
            }
        }
    }
    if (mFieldCount == 0) {
        fail(begin, "the data format names no field");
    }
}

const CgatsReader::Keyword& CgatsReader::required(const std::string& keyword) const {
    const auto found = mKeywords.find(keyword);
    if (found == mKeywords.end()) {
        fail(0, "the keyword " + keyword + " is missing");
    }
    return found->second;
}

std::string CgatsReader::optionalText(const std::string& keyword) const {
    const auto found = mKeywords.find(keyword);
    return found == mKeywords.end() ? std::string() : found->second.value;
}

int CgatsReader::integer(const std::string& keyword) const {
    const Keyword& found = required(keyword);
    const std::optional<int> value = Base::parseNumber<int>(found.value);
    if (!value) {
        fail(found.line, keyword + " is no whole number: " + quoted(found.value));
    }
    return *value;
}

Point CgatsReader::point(const std::string& keyword) const {
    const Keyword& found = required(keyword);
    const std::string_view text = found.value;
    const std::size_t gap = text.find_first_of(" \t");
    const std::size_t second = gap == text.npos ? text.npos : text.find_first_not_of(" \t", gap);
    if (second == text.npos) {
        fail(found.line, keyword + " must be two numbers: " + quoted(text));
    }
    const std::optional<double> x = Base::parseNumber<double>(text.substr(0, gap));
    const std::optional<double> y = Base::parseNumber<double>(text.substr(second));
    constexpr double kFurthest = 1e6;
    if (!x || !y || !(std::fabs(*x) <= kFurthest) || !(std::fabs(*y) <= kFurthest)) {
        fail(found.line, keyword + " must be two finite numbers: " + quoted(text));
    }
    return {*x, *y};
}

std::size_t CgatsReader::field(const std::string& name) const {
    const auto found = mFields.find(name);
    if (found == mFields.end()) {
        fail(0, "the field " + name + " is missing");
    }
    return found->second;
}

std::array<std::size_t, kBands> CgatsReader::spectralFields() const {
    std::array<std::size_t, kBands> fields{};
    for (std::size_t band = 0; band < kBands; ++band) {
        fields[band] = field("SPECTRAL_NM" + std::to_string(380 + 10 * band));
    }
    return fields;
}

const std::vector<std::string>* CgatsReader::nextSet() {
    if (!nextLine()) {
        fail(0, "ends without END_DATA");
    }
    if (mTokens[0] == "END_DATA") {
        if (mSetsRead != mNumberOfSets) {
            fail("NUMBER_OF_SETS is " + std::to_string(mNumberOfSets) + ", but there are " +
                 std::to_string(mSetsRead) + " sets");
        }
        return nullptr;
    }
    if (mTokenCount != mFieldCount) {
        fail("the set has " + std::to_string(mTokenCount) + " fields instead of " +
             std::to_string(mFieldCount));
    }
    if (++mSetsRead > mNumberOfSets) {
        fail("there are more sets than NUMBER_OF_SETS says (" + std::to_string(mNumberOfSets) + ")");
    }
    return &mTokens;
}

double CgatsReader::number(const std::string& text) const {
    const std::optional<double> value = Base::parseFinite<double>(text);
    if (!value) {
        fail("no finite number: " + quoted(text));
    }
    return *value;
}

float CgatsReader::singleNumber(const std::string& text) const {
    const std::optional<float> value = Base::parseFinite<float>(text);
    if (!value) {
        fail("no finite number: " + quoted(text));
    }
    return *value;
}

int CgatsReader::integerField(const std::string& text) const {
    const std::optional<int> value = Base::parseNumber<int>(text);
    if (!value) {
        fail("no whole number: " + quoted(text));
    }
    return *value;
}

} // namespace Color
