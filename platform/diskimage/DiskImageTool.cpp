#include "platform/diskimage/DiskImageTool.hpp"

#include <iomanip>
#include <optional>
#include <ostream>

#include "platform/diskimage/Attach.hpp"
#include "platform/diskimage/CreateImage.hpp"
#include "platform/diskimage/DiskImageError.hpp"
#include "platform/diskimage/DiskImageFormat.hpp"
#include "platform/diskimage/ImageInfo.hpp"
#include "support/PlistCodec.hpp"

namespace whittle::diskimage {

namespace {

constexpr int kFailure = 1;
constexpr int kUsageError = 2;
constexpr std::string_view kToolName = "whittle-diskimage";

constexpr std::string_view kUsage =
    "usage: whittle-diskimage attach IMAGE [-plist] [-noverify]\n"
    "       whittle-diskimage create -srcfolder FOLDER IMAGE -format UDRO [-encryption [AES-128]]\n"
    "       whittle-diskimage imageinfo -checksum IMAGE\n"
    "       whittle-diskimage eject DEVENTRY\n";

class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Walks a verb's arguments: options by name, the rest positional.
class Arguments {
public:
    Arguments(const std::vector<std::string>& arguments) : arguments_(arguments) {}
    bool atEnd() const { return next_ >= arguments_.size(); }
    const std::string& take() { return arguments_.at(next_++); }
    std::optional<std::string> peek() const {
        return atEnd() ? std::nullopt : std::optional<std::string>(arguments_[next_]);
    }
    std::string valueOf(const std::string& option) {
        if (atEnd()) throw UsageError(option + " needs a value");
        return take();
    }

private:
    const std::vector<std::string>& arguments_;
    std::size_t next_ = 1;  // after the verb
};

bool isOption(const std::string& argument) { return argument.size() > 1 && argument[0] == '-'; }

void setPositional(std::optional<std::string>& slot, const std::string& argument, const char* what) {
    if (slot) throw UsageError(std::string("more than one ") + what + " given");
    slot = argument;
}

void printEntitiesAsText(const Value& entities, std::ostream& out) {
    namespace k = format::attach;
    for (std::size_t i = 0; i < entities.count(); ++i) {
        Value entity = entities.at(i);
        out << std::left << std::setw(20) << entity.get(k::kDevEntry).text() << '\t' << std::setw(32)
            << entity.get(k::kContentHint).text() << '\t' << entity.get(k::kMountPoint).text() << '\n';
    }
}

int attachVerb(Arguments arguments, const ToolSettings& settings, const PassphrasePrompt& ask, std::ostream& out) {
    AttachOptions options;
    std::optional<std::string> image;
    bool plist = false;
    while (!arguments.atEnd()) {
        const std::string& argument = arguments.take();
        if (argument == "-plist") {
            plist = true;
        } else if (argument == "-noverify") {
            options.verify = false;
        } else if (argument == "-verify") {
            options.verify = true;
        } else if (isOption(argument)) {
            throw UsageError("unknown option " + argument);
        } else {
            setPositional(image, argument, "image");
        }
    }
    if (!image) throw UsageError("no image given");
    options.imagePath = *image;
    Value entities = attachImage(options, settings, ask);
    if (plist) {
        Value root = Value::dictionary();
        root.set(format::attach::kSystemEntities, entities);
        out << xmlPropertyList(root);
    } else {
        printEntitiesAsText(entities, out);
    }
    return 0;
}

int createVerb(Arguments arguments, const ToolSettings& settings, const PassphrasePrompt& ask, std::ostream& out) {
    CreateOptions options;
    std::optional<std::string> image, folder, imageFormat;
    while (!arguments.atEnd()) {
        const std::string& argument = arguments.take();
        if (argument == "-srcfolder") {
            setPositional(folder, arguments.valueOf(argument), "source folder");
        } else if (argument == "-format") {
            setPositional(imageFormat, arguments.valueOf(argument), "format");
        } else if (argument == "-encryption") {
            options.encrypt = true;
            if (auto cipher = arguments.peek(); cipher && !isOption(*cipher) && cipher->starts_with("AES-")) {
                arguments.take();
                if (*cipher != format::create::kCipher)
                    throw DiskImageError("only " + std::string(format::create::kCipher) + " encryption is supported");
            }
        } else if (isOption(argument)) {
            throw UsageError("unknown option " + argument);
        } else {
            setPositional(image, argument, "image");
        }
    }
    if (!folder) throw UsageError("no -srcfolder given");
    if (!image) throw UsageError("no image given");
    if (imageFormat && *imageFormat != format::create::kReadOnlyFormat)
        throw DiskImageError("only the read-only format " + std::string(format::create::kReadOnlyFormat) +
                             " can be written");
    options.sourceFolder = *folder;
    options.imagePath = *image;
    options.progress = settings.progress;
    std::string created = createImage(options, ask);
    out << "created: " << created << '\n';
    return 0;
}

int imageinfoVerb(Arguments arguments, const PassphrasePrompt& ask, std::ostream& out) {
    std::optional<std::string> image;
    bool checksum = false;
    while (!arguments.atEnd()) {
        const std::string& argument = arguments.take();
        if (argument == "-checksum") {
            checksum = true;
        } else if (isOption(argument)) {
            throw UsageError("unknown option " + argument);
        } else {
            setPositional(image, argument, "image");
        }
    }
    if (!image) throw UsageError("no image given");
    if (!checksum) throw UsageError("only imageinfo -checksum is supported");
    out << imageChecksumReport(*image, ask);
    return 0;
}

int ejectVerb(Arguments arguments, const ToolSettings& settings, std::ostream& out) {
    std::optional<std::string> device;
    while (!arguments.atEnd()) {
        const std::string& argument = arguments.take();
        if (isOption(argument) && !argument.starts_with("/")) throw UsageError("unknown option " + argument);
        setPositional(device, argument, "device entry");
    }
    if (!device) throw UsageError("no device entry given");
    std::string diskName = ejectDisk(*device, settings);
    out << '"' << diskName << format::report::kEjectedSuffix << '\n';
    return 0;
}

int runVerb(const std::vector<std::string>& arguments, const ToolSettings& settings, const PassphrasePrompt& ask,
            std::ostream& out) {
    if (arguments.empty()) throw UsageError("no verb given");
    const std::string& verb = arguments[0];
    if (verb == "attach") return attachVerb(Arguments(arguments), settings, ask, out);
    if (verb == "create") return createVerb(Arguments(arguments), settings, ask, out);
    if (verb == "imageinfo") return imageinfoVerb(Arguments(arguments), ask, out);
    if (verb == "eject" || verb == "detach") return ejectVerb(Arguments(arguments), settings, out);
    throw UsageError("unknown verb " + verb);
}

}  // namespace

int runDiskImageTool(const std::vector<std::string>& arguments, const ToolSettings& settings,
                     const PassphrasePrompt& askPassphrase, std::ostream& out, std::ostream& err) {
    std::string verb = arguments.empty() ? "" : arguments[0];
    try {
        int status = runVerb(arguments, settings, askPassphrase, out);
        out.flush();
        return status;
    } catch (const UsageError& error) {
        err << kToolName << ": " << error.what() << '\n' << kUsage;
        return kUsageError;
    } catch (const std::exception& error) {
        out.flush();
        err << kToolName << ": " << verb << " failed: " << error.what() << '\n';
        return kFailure;
    }
}

}  // namespace whittle::diskimage
