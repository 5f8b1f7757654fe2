// The CGATS.17 grammar, apart from what the fields mean. For the readers of this folder.
#pragma once

#include <Color/Cgats.h>
#include <Color/CgatsText.h>
#include <Color/Placement.h>
#include <Color/Point.h>
#include <Color/Spectrum.h>

#include <array>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Color {

// Longest file that is read. A line that holds more than kLongestLine bytes, or a text that is not closed on
// its line, is an error, so what a file can make us allocate is bounded by its size.
inline constexpr std::size_t kLargestFile = std::size_t{64} << 20;
inline constexpr std::size_t kLongestLine = std::size_t{64} << 10;
// The same for names and sets, which take more memory than they take bytes of the file.
inline constexpr std::size_t kMostNames = 10'000;
inline constexpr long kMostSets = 1'000'000;

// The text of a file. Throws CgatsError when it cannot be read or is too large.
std::string readWholeFile(const std::string& path);

// Reads the first table that holds sets: the constructor takes the header, nextSet() the data sets one by
// one.
//
// Programs write more than the standard has. Any line may stand first, or none. Where the file's name ends in
// ".csv", commas separate instead of blanks, and a file without BEGIN_DATA_FORMAT is one line of field names
// and the sets.
class CgatsReader {
public:
    enum class Extent { Table, Keywords, Interrupted };

    // The text must outlive the reader. Keywords: the header alone, which no table need follow. Interrupted:
    // a file whose writer may not have come to its end; the number of sets is not looked at, and the data end
    // where the text does, without its last line when that one has no end.
    CgatsReader(std::string_view text, std::string name, Extent extent = Extent::Table);

    struct Keyword {
        std::string value; // the values of the line, joined by a space
        int line = 0;
    };

    // The value of a keyword; throws when the file does not have it.
    const Keyword& required(const std::string& keyword) const;
    // The same; null when the file does not have it.
    const Keyword* optional(const std::string& keyword) const;
    // The value of a keyword, or "".
    std::string optionalText(const std::string& keyword) const;
    int integer(const std::string& keyword) const;
    Point point(const std::string& keyword) const;

    // The names of the fields, in their order.
    const std::vector<std::string>& fieldNames() const { return mFieldNames; }
    // The position of a field in every data set; throws when the file does not have it. Letter case and
    // underscores do not count.
    std::size_t field(const std::string& name) const;
    std::optional<std::size_t> optionalField(const std::string& name) const;
    // The positions of the kBands reflectances, however their names are spelt; nothing when there are none,
    // or not all of them.
    std::optional<std::array<std::size_t, kBands>> optionalSpectralFields() const;
    std::array<std::size_t, kBands> spectralFields() const; // throws instead

    // The positions of the fields that are neither measured nor say where a patch lies.
    std::vector<std::size_t> otherFields() const;
    std::vector<std::string> namesOf(const std::vector<std::size_t>& fields) const;

    // NUMBER_OF_SETS; nothing where only the sets themselves tell.
    std::optional<long> numberOfSets() const { return mNumberOfSets; }
    // Where NUMBER_OF_SETS stands; 0: nowhere.
    int numberOfSetsLine() const;

    // The next data set, valid until the next call; null after the last one, when the number of sets has been
    // checked.
    const std::vector<std::string>* nextSet();
    // The set that was read last, of these fields as they stand.
    std::vector<Value> valuesOf(const std::vector<std::size_t>& fields) const;
    // The lines of the other tables' BEGIN_DATA. After the last set.
    std::vector<int> otherTables() const;
    // Whether the last set was followed by END_DATA, or by the end of a file that needs none.
    bool isAtEnd() const { return mIsAtEnd; }
    // The line that was read last, from 1.
    int line() const { return mLine; }

    // Numbers of the set that was read last.
    double number(const std::string& text) const;
    float singleNumber(const std::string& text) const;
    int integerField(const std::string& text) const;

    [[noreturn]] void fail(const std::string& reason) const { fail(mLine, reason); }
    [[noreturn]] void fail(int line, const std::string& reason) const;

private:
    bool nextLine(); // splits the next line that is not empty into mTokens
    void split(std::string_view line);
    void splitAtCommas(std::string_view line);
    std::size_t readQuoted(std::string_view line, std::size_t at, std::string& token) const;
    std::string& newToken(bool isQuoted);
    void readHeader(Extent extent);
    void readFormat();
    void addFields();
    void addKeyword();
    void checkTable();
    bool skipEmptyTable();

    std::string_view mRest;
    std::string mName;
    int mLine = 0;
    bool mHasCommas = false;
    bool mIsInterrupted = false;
    bool mIsAtEnd = false;
    bool mIsPlain = false;            // field names and sets, no markers
    std::vector<std::string> mTokens; // of the line, quotes removed
    std::vector<bool> mQuoted;        // which of them had quotes
    std::size_t mTokenCount = 0;      // the used part of mTokens; the rest keeps its memory for later lines
    std::map<std::string, Keyword> mKeywords;
    std::map<std::string, std::size_t> mFields; // by their folded names
    std::vector<std::string> mFieldNames;
    std::optional<long> mNumberOfSets;
    long mSetsRead = 0;
    std::vector<int> mEmptyTables; // before this one
};

// What a file's header says of where its chart lies. Throws CgatsError for what cannot be.
PlacementParts placementPartsOf(const CgatsReader& reader);

// The wavelength in nm that a field's name stands for ("SPECTRAL_NM380", "NM380", "SPECTRAL_380", "R_380",
// "380nm", ...); nothing for other fields.
std::optional<int> wavelengthOf(std::string_view field);
// Whether a field holds what an instrument measures, or says where: what a new measurement replaces.
bool isMeasuredField(std::string_view field);

} // namespace Color
