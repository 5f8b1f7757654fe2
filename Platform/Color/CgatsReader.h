// The CGATS.17 grammar, apart from what the fields mean. For the readers of this folder.
#pragma once

#include <Color/Cgats.h>
#include <Color/Point.h>
#include <Color/Spectrum.h>

#include <array>
#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace Color {

// Longest file that is read. A line that holds more than kLongestLine bytes, or a text that is not closed on
// its line, is an error, so what a file can make us allocate is bounded by its size.
inline constexpr std::size_t kLargestFile = std::size_t{64} << 20;
inline constexpr std::size_t kLongestLine = std::size_t{64} << 10;

// The text of a file. Throws CgatsError when it cannot be read or is too large.
std::string readWholeFile(const std::string& path);

// Reads one table: the constructor takes the header, nextSet() the data sets one by one.
class CgatsReader {
public:
    // The text must outlive the reader.
    CgatsReader(std::string_view text, std::string name);

    struct Keyword {
        std::string value; // the values of the line, joined by a space
        int line = 0;
    };

    // The value of a keyword; throws when the file does not have it.
    const Keyword& required(const std::string& keyword) const;
    // The value of a keyword, or "".
    std::string optionalText(const std::string& keyword) const;
    int integer(const std::string& keyword) const;
    Point point(const std::string& keyword) const;

    // The position of a field in every data set; throws when the file does not have it.
    std::size_t field(const std::string& name) const;
    // The positions of SPECTRAL_NM380 ... SPECTRAL_NM730.
    std::array<std::size_t, kBands> spectralFields() const;

    // NUMBER_OF_SETS.
    long numberOfSets() const { return mNumberOfSets; }

    // The next data set, valid until the next call; null after the last one, when the number of sets has been
    // checked.
    const std::vector<std::string>* nextSet();
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
    void readHeader();
    void readFormat();
    void addKeyword();

    std::string_view mRest;
    std::string mName;
    int mLine = 0;
    std::vector<std::string> mTokens; // of the line, quotes removed
    std::size_t mTokenCount = 0;      // the used part of mTokens; the rest keeps its memory for later lines
    std::map<std::string, Keyword> mKeywords;
    std::map<std::string, std::size_t> mFields;
    std::size_t mFieldCount = 0;
    long mNumberOfSets = 0;
    long mSetsRead = 0;
};

} // namespace Color
