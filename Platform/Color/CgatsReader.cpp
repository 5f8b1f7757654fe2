#include <Base/File.h>
#include <Base/Number.h>
#include <Color/CgatsReader.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>

namespace Color {

namespace {

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

bool isControl(char c) {
    return static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\r';
}

// Programs do not agree on the letter case and the underscores of names.
std::string folded(std::string_view name) {
    std::string result;
    for (const char c : name) {
        if (c != '_') {
            result += c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
        }
    }
    return result;
}

bool endsInCsv(std::string_view name) {
    constexpr std::size_t kSuffix = 4;
    return name.size() > kSuffix && folded(name.substr(name.size() - kSuffix)) == ".CSV";
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

CgatsReader::CgatsReader(std::string_view text, std::string name, Extent extent)
    : mRest(text),
      mName(std::move(name)),
      mHasCommas(endsInCsv(mName)),
      mIsInterrupted(extent == Extent::Interrupted) {
    if (text.size() > kLargestFile) {
        fail(0, "is too large");
    }
    if (mRest.starts_with("\xFF\xFE") || mRest.starts_with("\xFE\xFF")) {
        fail(1, "is UTF-16 text, save it as UTF-8");
    }
    if (mRest.starts_with("\xEF\xBB\xBF")) {
        mRest.remove_prefix(3);
    }
    mIsPlain = mHasCommas && extent == Extent::Table && mRest.find("BEGIN_DATA_FORMAT") == mRest.npos;
    if (!mIsPlain) {
        readHeader(extent);
    } else if (nextLine()) {
        addFields();
    } else {
        fail(0, "is empty");
    }
}

void CgatsReader::fail(int line, const std::string& reason) const {
    throw CgatsError(mName, line, reason);
}

bool CgatsReader::nextLine() {
    while (!mRest.empty()) {
        const std::size_t end = std::min(mRest.find('\n'), mRest.size());
        const std::string_view line = mRest.substr(0, end);
        if (mIsInterrupted && end == mRest.size() && line != "END_DATA") {
            return false;
        }
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

std::string& CgatsReader::newToken(bool isQuoted) {
    if (mTokenCount == mTokens.size()) {
        mTokens.emplace_back();
        mQuoted.push_back(false);
    }
    mQuoted[mTokenCount] = isQuoted;
    mTokens[mTokenCount].clear();
    return mTokens[mTokenCount++];
}

// Takes the quoted text that begins at `at`; where it ends.
std::size_t CgatsReader::readQuoted(std::string_view line, std::size_t at, std::string& token) const {
    for (++at;; ++at) {
        if (at >= line.size()) {
            fail("a quoted text is not closed on its line");
        }
        if (line[at] == '"') {
            ++at;
            if (at >= line.size() || line[at] != '"') {
                return at;
            }
        }
        token += line[at];
    }
}

void CgatsReader::split(std::string_view line) {
    mTokenCount = 0;
    if (mHasCommas) {
        splitAtCommas(line);
        return;
    }
    std::size_t at = 0;
    while (at < line.size()) {
        if (isBlank(line[at])) {
            ++at;
            continue;
        }
        if (line[at] == '#') {
            return;
        }
        const bool isQuoted = line[at] == '"';
        std::string& token = newToken(isQuoted);
        if (!isQuoted) {
            for (; at < line.size() && !isBlank(line[at]); ++at) {
                if (isControl(line[at])) {
                    fail("the line holds a control character");
                }
                token += line[at];
            }
            continue;
        }
        at = readQuoted(line, at, token);
        if (at < line.size() && !isBlank(line[at])) {
            fail("text follows a closing quote");
        }
    }
}

void CgatsReader::splitAtCommas(std::string_view line) {
    while (!line.empty() && isBlank(line.back())) {
        line.remove_suffix(1);
    }
    if (line.starts_with('#')) {
        return;
    }
    std::size_t filled = 0; // tables that spreadsheets write end their lines with empty cells
    std::size_t at = 0;
    while (at < line.size()) {
        while (at < line.size() && isBlank(line[at])) {
            ++at;
        }
        const bool isQuoted = at < line.size() && line[at] == '"';
        std::string& token = newToken(isQuoted);
        if (isQuoted) {
            at = readQuoted(line, at, token);
        }
        for (; at < line.size() && line[at] != ','; ++at) {
            if (isControl(line[at])) {
                fail("the line holds a control character");
            }
            if (isQuoted && !isBlank(line[at])) {
                fail("text follows a closing quote");
            }
            if (!isQuoted) {
                token += line[at];
            }
        }
        while (!isQuoted && !token.empty() && isBlank(token.back())) {
            token.pop_back();
        }
        if (isQuoted || !token.empty()) {
            filled = mTokenCount;
        }
        ++at;
    }
    mTokenCount = filled;
}

void CgatsReader::readHeader(Extent extent) {
    bool isEmpty = true;
    while (nextLine()) {
        isEmpty = false;
        if (mTokens[0] == "BEGIN_DATA") {
            checkTable();
            if (!skipEmptyTable()) {
                return;
            }
        } else if (mTokens[0] == "BEGIN_DATA_FORMAT") {
            if (extent == Extent::Keywords) {
                return;
            }
            readFormat();
        } else {
            addKeyword();
        }
    }
    if (isEmpty) {
        fail(0, "is empty");
    }
    if (extent != Extent::Keywords) {
        fail(0, "holds no table: it ends before BEGIN_DATA");
    }
}

void CgatsReader::checkTable() {
    if (mFieldNames.empty()) {
        fail("BEGIN_DATA comes before any BEGIN_DATA_FORMAT");
    }
    mNumberOfSets = integer("NUMBER_OF_SETS");
    if (*mNumberOfSets < 0) {
        fail(required("NUMBER_OF_SETS").line, "NUMBER_OF_SETS must not be negative");
    }
    if (mKeywords.contains("NUMBER_OF_FIELDS") &&
        integer("NUMBER_OF_FIELDS") != static_cast<int>(mFieldNames.size())) {
        fail(required("NUMBER_OF_FIELDS").line, "NUMBER_OF_FIELDS does not match the " +
                                                    std::to_string(mFieldNames.size()) +
                                                    " fields of the format");
    }
}

// Passes over a table without sets when another one follows.
bool CgatsReader::skipEmptyTable() {
    if (mNumberOfSets != 0 || mRest.find("\nBEGIN_DATA_FORMAT") == mRest.npos) {
        return false;
    }
    mEmptyTables.push_back(mLine);
    if (!nextLine() || mTokens[0] != "END_DATA") {
        fail("NUMBER_OF_SETS is 0, but there are sets");
    }
    mKeywords.clear();
    mFields.clear();
    mFieldNames.clear();
    return true;
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
    if (mKeywords.size() >= kMostNames) {
        fail("has too many keywords");
    }
    const auto [place, isNew] = mKeywords.try_emplace(mTokens[0], std::move(keyword));
    if (!isNew && (mTokens[0].starts_with("CHART_") || mTokens[0].starts_with("NUMBER_OF_"))) {
        fail(mTokens[0] + " is given twice");
    }
}

void CgatsReader::readFormat() {
    if (!mFieldNames.empty()) {
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
        addFields();
    }
    if (mFieldNames.empty()) {
        fail(begin, "the data format names no field");
    }
}

// Those that the line names.
void CgatsReader::addFields() {
    for (std::size_t i = 0; i < mTokenCount; ++i) {
        if (mFieldNames.size() >= kMostNames) {
            fail("has too many fields");
        }
        if (!mFields.try_emplace(folded(mTokens[i]), mFieldNames.size()).second) {
            fail("the field " + excerpt(mTokens[i]) + " is given twice");
        }
        mFieldNames.push_back(mTokens[i]);
    }
}

const CgatsReader::Keyword* CgatsReader::optional(const std::string& keyword) const {
    const auto found = mKeywords.find(keyword);
    return found == mKeywords.end() ? nullptr : &found->second;
}

const CgatsReader::Keyword& CgatsReader::required(const std::string& keyword) const {
    const Keyword* const found = optional(keyword);
    if (found == nullptr) {
        fail(0, "the keyword " + keyword + " is missing");
    }
    return *found;
}

int CgatsReader::numberOfSetsLine() const {
    const Keyword* const found = optional("NUMBER_OF_SETS");
    return found != nullptr ? found->line : 0;
}

std::string CgatsReader::optionalText(const std::string& keyword) const {
    const Keyword* const found = optional(keyword);
    return found != nullptr ? found->value : std::string();
}

int CgatsReader::integer(const std::string& keyword) const {
    const Keyword& found = required(keyword);
    const std::optional<int> value = Base::parseNumber<int>(found.value);
    if (!value) {
        fail(found.line, keyword + " is no whole number: " + excerpt(found.value));
    }
    return *value;
}

Point CgatsReader::point(const std::string& keyword) const {
    const Keyword& found = required(keyword);
    const std::string_view text = found.value;
    const std::size_t gap = text.find_first_of(" \t");
    const std::size_t second = gap == text.npos ? text.npos : text.find_first_not_of(" \t", gap);
    if (second == text.npos) {
        fail(found.line, keyword + " must be two numbers: " + excerpt(text));
    }
    const std::optional<double> x = Base::parseNumber<double>(text.substr(0, gap));
    const std::optional<double> y = Base::parseNumber<double>(text.substr(second));
    constexpr double kFurthest = 1e6;
    if (!x || !y || !(std::fabs(*x) <= kFurthest) || !(std::fabs(*y) <= kFurthest)) {
        fail(found.line, keyword + " must be two finite numbers: " + excerpt(text));
    }
    return {*x, *y};
}

std::optional<std::size_t> CgatsReader::optionalField(const std::string& name) const {
    const auto found = mFields.find(folded(name));
    return found != mFields.end() ? std::optional(found->second) : std::nullopt;
}

std::size_t CgatsReader::field(const std::string& name) const {
    const std::optional<std::size_t> found = optionalField(name);
    if (!found) {
        fail(0, "the field " + name + " is missing");
    }
    return *found;
}

std::optional<std::array<std::size_t, kBands>> CgatsReader::optionalSpectralFields() const {
    std::array<std::size_t, kBands> fields{};
    std::array<bool, kBands> isThere{};
    for (std::size_t index = 0; index < mFieldNames.size(); ++index) {
        const std::optional<int> wavelength = wavelengthOf(mFieldNames[index]);
        const int band = wavelength ? (*wavelength - kFirstWavelength) / kWavelengthStep : -1;
        if (!wavelength || *wavelength < kFirstWavelength || *wavelength % kWavelengthStep != 0 ||
            band >= static_cast<int>(kBands)) {
            continue;
        }
        const auto at = static_cast<std::size_t>(band);
        if (isThere[at]) {
            fail(0, "has two fields for " + std::to_string(*wavelength) +
                        " nm: " + excerpt(mFieldNames[fields[at]]) + " and " + excerpt(mFieldNames[index]));
        }
        isThere[at] = true;
        fields[at] = index;
    }
    const bool isWhole = std::find(isThere.begin(), isThere.end(), false) == isThere.end();
    return isWhole ? std::optional(fields) : std::nullopt;
}

std::array<std::size_t, kBands> CgatsReader::spectralFields() const {
    const std::optional<std::array<std::size_t, kBands>> found = optionalSpectralFields();
    if (!found) {
        fail(0, "the fields SPECTRAL_NM380 to SPECTRAL_NM730, in steps of 10, are missing");
    }
    return *found;
}

std::vector<std::size_t> CgatsReader::otherFields() const {
    std::vector<std::size_t> fields;
    for (std::size_t index = 0; index < mFieldNames.size(); ++index) {
        if (!isMeasuredField(mFieldNames[index])) {
            fields.push_back(index);
        }
    }
    return fields;
}

std::vector<std::string> CgatsReader::namesOf(const std::vector<std::size_t>& fields) const {
    std::vector<std::string> names;
    for (const std::size_t index : fields) {
        names.push_back(mFieldNames[index]);
    }
    return names;
}

std::vector<Value> CgatsReader::valuesOf(const std::vector<std::size_t>& fields) const {
    std::vector<Value> values;
    values.reserve(fields.size());
    for (const std::size_t index : fields) {
        values.push_back({mTokens[index], mQuoted[index]});
    }
    return values;
}

const std::vector<std::string>* CgatsReader::nextSet() {
    if (!nextLine()) {
        if (mIsPlain) {
            mIsAtEnd = true;
            return nullptr;
        }
        if (mIsInterrupted) {
            return nullptr;
        }
        fail(0, "ends without END_DATA");
    }
    if (!mIsPlain && mTokens[0] == "END_DATA") {
        if (!mIsInterrupted && mSetsRead != mNumberOfSets) {
            fail("NUMBER_OF_SETS is " + std::to_string(*mNumberOfSets) + ", but there are " +
                 std::to_string(mSetsRead) + " sets");
        }
        mIsAtEnd = true;
        return nullptr;
    }
    while (mHasCommas && mTokenCount < mFieldNames.size()) {
        newToken(false); // an empty cell at the end
    }
    if (mTokenCount != mFieldNames.size()) {
        fail("the set has " + std::to_string(mTokenCount) + " fields instead of " +
             std::to_string(mFieldNames.size()));
    }
    ++mSetsRead;
    if (mNumberOfSets && !mIsInterrupted && mSetsRead > *mNumberOfSets) {
        fail("there are more sets than NUMBER_OF_SETS says (" + std::to_string(*mNumberOfSets) + ")");
    }
    if (mSetsRead > kMostSets) {
        fail("there are more than " + std::to_string(kMostSets) + " sets");
    }
    return &mTokens;
}

std::vector<int> CgatsReader::otherTables() const {
    std::vector<int> lines = mEmptyTables;
    int number = mLine;
    std::string_view rest = mRest;
    while (!rest.empty()) {
        ++number;
        const std::size_t end = std::min(rest.find('\n'), rest.size());
        const std::string_view line = rest.substr(0, end);
        rest.remove_prefix(std::min(end + 1, rest.size()));
        if (line.starts_with("BEGIN_DATA") && !line.starts_with("BEGIN_DATA_FORMAT")) {
            lines.push_back(number);
        }
    }
    return lines;
}

double CgatsReader::number(const std::string& text) const {
    const std::optional<double> value = Base::parseFinite<double>(text);
    if (!value) {
        fail("no finite number: " + excerpt(text));
    }
    return *value;
}

float CgatsReader::singleNumber(const std::string& text) const {
    const std::optional<float> value = Base::parseFinite<float>(text);
    if (!value) {
        fail("no finite number: " + excerpt(text));
    }
    return *value;
}

int CgatsReader::integerField(const std::string& text) const {
    const std::optional<int> value = Base::parseNumber<int>(text);
    if (!value) {
        fail("no whole number: " + excerpt(text));
    }
    return *value;
}

std::optional<int> wavelengthOf(std::string_view field) {
    std::string name = folded(field);
    constexpr std::string_view kSpectral = "SPECTRAL"; // or its first letters, four at least
    constexpr std::ptrdiff_t kLeastLetters = 4;
    const auto [end, rest] = std::mismatch(name.begin(), name.end(), kSpectral.begin(), kSpectral.end());
    if (end - name.begin() >= kLeastLetters) {
        name.erase(name.begin(), end);
    }
    for (const std::string_view prefix : {"R", "NM"}) {
        if (name.starts_with(prefix)) {
            name.erase(0, prefix.size());
        }
    }
    if (name.ends_with("NM")) {
        name.resize(name.size() - 2);
    }
    const bool isWavelength =
        name.size() >= 3 && name.size() <= 4 && Base::parseNumber<int>(name) && name[0] != '-';
    return isWavelength ? Base::parseNumber<int>(name) : std::nullopt;
}

bool isMeasuredField(std::string_view field) {
    const std::string name = folded(field);
    for (const std::string_view whole : {"SAMPLEID", "ROW", "COLUMN", "SPOTINDEX", "MEANDE", "CHISQDPAR"}) {
        if (name == whole) {
            return true;
        }
    }
    for (const std::string_view beginning :
         {"LAB_", "LCH_", "LUV_", "XYZ_", "XYY_", "D_", "STDEV_", "SPECTRAL_"}) {
        if (field.starts_with(beginning)) {
            return true;
        }
    }
    return wavelengthOf(field).has_value();
}

} // namespace Color
