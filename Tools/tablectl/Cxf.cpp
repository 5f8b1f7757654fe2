#include "Cxf.h"

#include "Errors.h"
#include "Output.h"

#include <Base/Utf8.h>

#include <libxml/xmlwriter.h>

#include <algorithm>
#include <ctime>
#include <memory>
#include <optional>
#include <utility>

namespace tablectl {

namespace {

constexpr const char* kNamespace = "http://colorexchangeformat.com/CxF3-core";
constexpr const char* kSpecification = "Measured";

// An XML text that grows element by element; the library escapes what it is given.
class XmlText {
public:
    XmlText()
        : mBuffer(xmlBufferCreate(), xmlBufferFree),
          mWriter(xmlNewTextWriterMemory(mBuffer.get(), 0), xmlFreeTextWriter) {
        xmlTextWriterSetIndent(mWriter.get(), 1);
        check(xmlTextWriterStartDocument(mWriter.get(), nullptr, "UTF-8", nullptr));
    }

    // An element as long as its content is written.
    template <class Content>
    void element(const char* name, const std::vector<std::pair<const char*, std::string>>& attributes,
                 Content content) {
        check(xmlTextWriterStartElement(mWriter.get(), text(std::string("cc:") + name)));
        for (const auto& [key, value] : attributes)
            check(xmlTextWriterWriteAttribute(mWriter.get(), text(key), text(clean(value))));
        content();
        check(xmlTextWriterEndElement(mWriter.get()));
    }
    void element(const char* name, const std::string& value) {
        element(name, {}, [&] { write(value); });
    }
    void write(const std::string& value) {
        check(xmlTextWriterWriteString(mWriter.get(), text(clean(value))));
    }

    std::string finish() {
        check(xmlTextWriterEndDocument(mWriter.get()));
        mWriter.reset(); // flushes
        return reinterpret_cast<const char*>(xmlBufferContent(mBuffer.get()));
    }

private:
    static const xmlChar* text(const std::string& value) {
        return reinterpret_cast<const xmlChar*>(value.c_str());
    }

    // XML has no form for control characters.
    static std::string clean(const std::string& value) {
        std::string result = Base::validUtf8(value);
        std::replace_if(
            result.begin(), result.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20; }, ' ');
        return result;
    }

    static void check(int result) {
        if (result < 0)
            throw DeviceFailure("the XML text cannot be made");
    }

    std::unique_ptr<xmlBuffer, void (*)(xmlBufferPtr)> mBuffer;
    std::unique_ptr<xmlTextWriter, void (*)(xmlTextWriterPtr)> mWriter;
};

// A colour of inks or lights: its element, and the elements of the fields that make it.
struct DeviceColor {
    const char* element;
    std::vector<std::pair<std::string, const char*>> channels;
};

const std::vector<DeviceColor>& deviceColors() {
    static const std::vector<DeviceColor> kColors = {
        {"ColorCMYK", {{"CMYK_C", "Cyan"}, {"CMYK_M", "Magenta"}, {"CMYK_Y", "Yellow"}, {"CMYK_K", "Black"}}},
        {"ColorRGB", {{"RGB_R", "R"}, {"RGB_G", "G"}, {"RGB_B", "B"}}}};
    return kColors;
}

class CxfWriter {
public:
    explicit CxfWriter(const Measured& measured) : mMeasured(measured), mData(measured.data) {
        for (const DeviceColor& color : deviceColors()) {
            const bool isWhole =
                std::all_of(color.channels.begin(), color.channels.end(),
                            [this](const auto& channel) { return positionOf(channel.first).has_value(); });
            if (!isWhole)
                continue;
            mColors.push_back(&color);
            for (const auto& [field, element] : color.channels)
                mInColors.push_back(field);
        }
    }

    std::string text() {
        mXml.element("CxF", {{"xmlns:cc", kNamespace}}, [this] {
            mXml.element("FileInformation", {}, [this] {
                mXml.element("Creator", "tablectl");
                mXml.element("CreationDate", mNow);
                mXml.element("Description", mData.descriptor);
            });
            mXml.element("Resources", {}, [this] {
                mXml.element("ObjectCollection", {}, [this] {
                    for (const Color::Reading& reading : mMeasured.means)
                        writeObject(reading);
                });
                mXml.element("ColorSpecificationCollection", {}, [this] { writeSpecification(); });
            });
        });
        return mXml.finish();
    }

private:
    using Attributes = std::vector<std::pair<const char*, std::string>>;

    std::optional<std::size_t> positionOf(const std::string& field) const {
        const auto found = std::find(mData.fieldNames.begin(), mData.fieldNames.end(), field);
        return found != mData.fieldNames.end()
                   ? std::optional(static_cast<std::size_t>(found - mData.fieldNames.begin()))
                   : std::nullopt;
    }

    void writeObject(const Color::Reading& reading) {
        mXml.element(
            "Object",
            {{"ObjectType", "Target"}, {"Name", reading.sampleId}, {"Id", "c" + std::to_string(++mObjects)}},
            [&] {
                mXml.element("CreationDate", mNow);
                mXml.element("ColorValues", {}, [&] { writeMeasured(reading); });
                if (!mColors.empty())
                    mXml.element("DeviceColorValues", {}, [&] { writeDeviceColors(reading); });
                mXml.element("TagCollection", {}, [&] { writeTags(reading); });
            });
    }

    void writeMeasured(const Color::Reading& reading) {
        const Attributes specified{{"ColorSpecification", kSpecification}};
        if (mData.hasSpectra)
            mXml.element("ReflectanceSpectrum",
                         {specified[0], {"StartWL", std::to_string(Color::kFirstWavelength)}}, [&] {
                             std::string values;
                             for (const float value : reading.spectrum)
                                 values += (values.empty() ? "" : " ") + numberText(value);
                             mXml.write(values);
                         });
        mXml.element("ColorCIELab", specified, [&] {
            mXml.element("L", numberText(reading.lab[0]));
            mXml.element("A", numberText(reading.lab[1]));
            mXml.element("B", numberText(reading.lab[2]));
        });
    }

    void writeDeviceColors(const Color::Reading& reading) {
        for (const DeviceColor* color : mColors)
            mXml.element(color->element, {{"ColorSpecification", kSpecification}}, [&] {
                for (const auto& [field, element] : color->channels)
                    mXml.element(element, reading.values[*positionOf(field)].text);
            });
    }

    void writeTags(const Color::Reading& reading) {
        const auto tag = [this](const std::string& name, const std::string& value) {
            mXml.element("Tag", {{"Name", name}, {"Value", value}}, [] {});
        };
        if (mData.hasCells) {
            tag("ROW", std::to_string(reading.row));
            tag("COLUMN", std::to_string(reading.column));
        }
        for (std::size_t index = 0; index < mData.fieldNames.size(); ++index) {
            const std::string& name = mData.fieldNames[index];
            if (std::find(mInColors.begin(), mInColors.end(), name) == mInColors.end())
                tag(name, reading.values[index].text);
        }
    }

    void writeSpecification() {
        mXml.element("ColorSpecification", {{"Id", kSpecification}}, [this] {
            mXml.element("TristimulusSpec", {}, [this] {
                mXml.element("Illuminant", "D50");
                mXml.element("Observer", "2_Degree");
            });
            mXml.element("MeasurementSpec", {}, [this] {
                mXml.element("MeasurementType", "Spectrum_Reflectance");
                mXml.element("WavelengthRange",
                             {{"StartWL", std::to_string(Color::kFirstWavelength)},
                              {"Increment", std::to_string(Color::kWavelengthStep)}},
                             [] {});
                mXml.element("Device", {}, [this] { mXml.element("DeviceIllumination", mData.condition); });
            });
        });
    }

    static std::string now() {
        const std::time_t time = std::time(nullptr);
        char text[32];
        std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", std::gmtime(&time));
        return text;
    }

    const Measured& mMeasured;
    const Color::Measurements& mData;
    XmlText mXml;
    std::string mNow = now();
    std::vector<const DeviceColor*> mColors; // those that all fields are there of
    std::vector<std::string> mInColors;      // their fields
    int mObjects = 0;
};

} // namespace

std::string cxfText(const Measured& measured) {
    return CxfWriter(measured).text();
}

} // namespace tablectl
