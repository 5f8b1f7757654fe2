// The device-service API: reference-counted service objects, the device center with its run loop, the
// hardware manager and the log.
//
// Ownership: what a `...Create...`, `...Copy...` or `...Send...` call returns belongs to the caller, who
// gives it back with VellRelease; a `...Get...` call lends. `VellConstStringCreateWithCString` is the
// exception: its strings live for the whole process and are never released. Retain, release and every getter
// stand null: they answer null, 0 or nothing. Setters copy or retain what they are given.
//
// Threads: reference counts are atomic. A device record may be used by any thread: each call on it is atomic,
// and what a getter lends stays valid until the center's thread has finished the run-loop event it is in (see
// VellDeviceCenterRunLoopOnce), even when another thread replaces the value meanwhile. Every other object is
// used by one thread at a time. Calls that say "any thread" are safe anywhere.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstddef>
#include <cstdint>

extern "C" {

// --- Objects

using VellObjectRef = void*;
using VellStringRef = struct __VellString*;
using VellNumberRef = struct __VellNumber*;
using VellDataRef = struct __VellData*;
using VellArrayRef = struct __VellArray*;
using VellDictionaryRef = struct __VellDictionary*;
using VellReceiptRef = struct __VellReceipt*;
using VellDeviceCommandRef = struct __VellDeviceCommand*;
using VellDeviceCommandResponseRef = struct __VellDeviceCommandResponse*;
using VellMeasurementColorRef = struct __VellMeasurementColor*;
using VellMeasurementRef = struct __VellMeasurement*;
using VellMeasurementSetRef = struct __VellMeasurementSet*;
using VellDeviceRef = struct __VellDevice*;
using VellDeviceCenterRef = struct __VellDeviceCenter*;
using VellHardwareManagerRef = struct __VellHardwareManager*;
using VellHardwareDeviceRef = struct __VellHardwareDevice*;
using VellLibraryRef = struct __VellLibrary*;

VellObjectRef VellRetain(VellObjectRef object); // returns `object`
void VellRelease(VellObjectRef object);
// The object itself when its type has the name (as in "VellStringRef"), else null and an error line in the
// log. Null gives null without a line. Lends: the count stays as it is.
VellObjectRef VellCheckedCast(VellObjectRef object, const char* typeName);
const char* VellTypeName(VellObjectRef object); // "VellStringRef", ...; "" for null
int VellEqual(VellObjectRef left,
              VellObjectRef right); // 1: same type and equal contents (or both null), else 0
int VellCompareObjects(VellObjectRef left, VellObjectRef right); // below 0, 0, above 0; a total order
// 32-bit FNV-1a of a string's bytes, stable across builds; of other objects, of their description.
std::uint32_t VellHash(VellObjectRef object);
void VellShow(VellObjectRef object);                     // the description, as a line on standard output
VellStringRef VellCopyDescription(VellObjectRef object); // never null
// A duplicate that shares nothing that can change; null for null.
VellObjectRef VellCopy(VellObjectRef object);

// Strings are immutable. Null text gives null.
VellStringRef VellStringCreateWithCString(const char* text);
VellStringRef VellStringCreateWithCStringUsingEncoding(const char* text, int encoding); // 0: UTF-8
VellStringRef VellConstStringCreateWithCString(const char* text); // one per text, never released; any thread
// The shortest decimal form that reads back to the same double; "nan", "inf" and "-inf" for those.
VellStringRef VellStringCreateWithDouble(double value);
const char* VellStringGetCString(VellStringRef string); // null for null
long VellStringGetLength(VellStringRef string);         // bytes
double VellStringGetDoubleValue(VellStringRef string);  // 0 where there is no number
// Option 1 ignores letter case. 0 when equal, else below or above 0.
int VellStringCompare(VellStringRef left, VellStringRef right, int options);

VellNumberRef VellNumberCreateWithInteger(std::int64_t value);
VellNumberRef VellNumberCreateWithDouble(double value);
VellNumberRef VellNumberCreateWithBool(bool value);
std::int64_t VellNumberGetIntegerValue(VellNumberRef number); // a double is truncated and saturated
double VellNumberGetDoubleValue(VellNumberRef number);

VellDataRef VellDataCreateWithBytes(const void* bytes,
                                    int length); // null for a negative length or null bytes
VellDataRef VellDataCreateWithMappedFileAtPath(VellStringRef path); // null when the file cannot be read
VellDataRef VellDataCreateWithContentsAtPath(VellStringRef path);   // null when the file cannot be read
void* VellDataGetBytes(VellDataRef data);
int VellDataGetLength(VellDataRef data);
void VellDataAppendBytes(VellDataRef data, const void* bytes, int length);

VellArrayRef VellArrayCreate();
void VellArrayAppendValue(VellArrayRef array, VellObjectRef value); // retains; null is ignored
int VellArrayGetCount(VellArrayRef array);
VellObjectRef VellArrayGetValueAtIndex(VellArrayRef array, int index); // null out of range

// Keeps the order in which keys were first set.
VellDictionaryRef VellDictionaryCreate();
void VellDictionarySetValueForKey(VellDictionaryRef dictionary, VellStringRef key,
                                  VellObjectRef value); // null removes
VellObjectRef VellDictionaryGetValueForKey(VellDictionaryRef dictionary, VellStringRef key);
int VellDictionaryGetCount(VellDictionaryRef dictionary);
VellStringRef VellDictionaryGetKeyAtIndex(VellDictionaryRef dictionary, int index);

// Binary property list of strings, numbers, data, arrays and dictionaries. Null when there is something else
// in it.
VellDataRef VellCoderCopyEncodedDataWithRootObject(VellObjectRef root);
// Reads what the call above writes, from whoever sent it: null for anything else, XML included, and for what
// nests deeper than 64 levels.
VellObjectRef VellCoderCopyRootObjectWithEncodedData(VellDataRef data);
// Of this platform only: a property list of either form from a regular file. Null when it cannot be read
// whole.
VellObjectRef VellCoderCopyRootObjectWithContentsAtPath(VellStringRef path);

// --- Commands, receipts, responses

// Who sent a command. `source` is the name the sender registered, `ticket` what tells its commands apart,
// `processIdentifier` the sender as the kernel knows it, as text.
VellReceiptRef VellReceiptCreate(VellStringRef context);
VellStringRef VellReceiptGetContext(VellReceiptRef receipt);
VellStringRef VellReceiptGetSource(VellReceiptRef receipt);
VellStringRef VellReceiptGetTicket(VellReceiptRef receipt);
VellStringRef VellReceiptGetProcessIdentifier(VellReceiptRef receipt);

VellDeviceCommandRef VellDeviceCommandCreate(VellStringRef name);
VellStringRef VellDeviceCommandGetCommandName(VellDeviceCommandRef command);
void VellDeviceCommandSetCommandName(VellDeviceCommandRef command, VellStringRef name);
// Keys are matched without regard to letter case and keep the spelling in which they were first set.
VellStringRef VellDeviceCommandGetArgument(VellDeviceCommandRef command, VellStringRef key);
void VellDeviceCommandSetArgument(VellDeviceCommandRef command, VellStringRef key, VellStringRef value);
VellStringRef VellDeviceCommandGetDeviceName(VellDeviceCommandRef command);
void VellDeviceCommandSetDeviceName(VellDeviceCommandRef command, VellStringRef name);
VellStringRef VellDeviceCommandGetDevicePath(VellDeviceCommandRef command);
void VellDeviceCommandSetDevicePath(VellDeviceCommandRef command, VellStringRef path);
VellDataRef VellDeviceCommandGetData(VellDeviceCommandRef command);
void VellDeviceCommandSetData(VellDeviceCommandRef command, VellDataRef data);
VellReceiptRef VellDeviceCommandGetReceipt(VellDeviceCommandRef command); // null before it was sent

// A response remembers the command it answers, its receipt and the connection it came from.
VellDeviceCommandResponseRef VellDeviceCommandResponseCreate(VellDeviceCommandRef command);
VellDeviceCommandRef VellDeviceCommandResponseCopyCommand(VellDeviceCommandResponseRef response);
int VellDeviceCommandResponseGetCode(VellDeviceCommandResponseRef response);
void VellDeviceCommandResponseSetCode(VellDeviceCommandResponseRef response, int code);
VellStringRef VellDeviceCommandResponseGetMessage(VellDeviceCommandResponseRef response);
void VellDeviceCommandResponseSetMessage(VellDeviceCommandResponseRef response, VellStringRef message);
VellMeasurementSetRef VellDeviceCommandResponseCopyMeasurementSet(VellDeviceCommandResponseRef response);
void VellDeviceCommandResponseSetMeasurementSet(VellDeviceCommandResponseRef response,
                                                VellMeasurementSetRef set);
VellDataRef VellDeviceCommandResponseGetData(VellDeviceCommandResponseRef response);
void VellDeviceCommandResponseSetData(VellDeviceCommandResponseRef response, VellDataRef data);
// To the client that sent the command; to every client when this process made the command itself. The second
// post of one response does nothing. Any thread; returns at once, what does not fit into the socket leaves in
// later passes.
void VellDeviceCommandResponsePost(VellDeviceCommandResponseRef response);

// --- Measurements

VellMeasurementRef VellMeasurementCreate();
VellStringRef VellMeasurementGetMode(VellMeasurementRef measurement);
void VellMeasurementSetMode(VellMeasurementRef measurement, VellStringRef mode);
void VellMeasurementAddColor(VellMeasurementRef measurement, VellMeasurementColorRef color);
unsigned VellMeasurementGetColorCount(VellMeasurementRef measurement);
VellMeasurementColorRef VellMeasurementGetColorAtIndex(VellMeasurementRef measurement, unsigned index);
VellMeasurementColorRef VellMeasurementGetColorForColorSpace(VellMeasurementRef measurement,
                                                             VellStringRef space);

VellMeasurementSetRef VellMeasurementSetCreate();
void VellMeasurementSetAddMeasurement(VellMeasurementSetRef set, VellMeasurementRef measurement);
unsigned VellMeasurementSetGetCount(VellMeasurementSetRef set);
VellMeasurementRef VellMeasurementSetGetMeasurementAtIndex(VellMeasurementSetRef set, unsigned index);

VellMeasurementColorRef VellMeasurementColorCreate();
VellStringRef VellMeasurementColorGetColorSpace(VellMeasurementColorRef color);
void VellMeasurementColorSetColorSpace(VellMeasurementColorRef color, VellStringRef space);
VellStringRef VellMeasurementColorGetAttribute(VellMeasurementColorRef color, VellStringRef key);
void VellMeasurementColorSetAttribute(VellMeasurementColorRef color, VellStringRef key, VellStringRef value);
unsigned VellMeasurementColorGetAttributeCount(VellMeasurementColorRef color);
VellStringRef VellMeasurementColorGetAttributeNameAtIndex(VellMeasurementColorRef color, unsigned index);
void VellMeasurementColorSetValues(VellMeasurementColorRef color, VellArrayRef values); // strings; copied
VellArrayRef VellMeasurementColorCopyValues(VellMeasurementColorRef color);

// --- Device records

// A record made here is this process's own, and posting it publishes it; one that the center hands out
// mirrors the last status that its plug-in posted.
VellDeviceRef VellDeviceCreate();
VellStringRef VellDeviceGetName(VellDeviceRef device);
VellStringRef VellDeviceGetDisplayName(VellDeviceRef device); // the attribute "DisplayName" when none was set
VellStringRef VellDeviceGetPath(VellDeviceRef device);        // the attribute "DevicePath" when none was set
VellStringRef VellDeviceGetSerialNumber(VellDeviceRef device);
VellStringRef VellDeviceGetServiceVersion(VellDeviceRef device);
VellArrayRef VellDeviceGetModes(VellDeviceRef device);
VellStringRef VellDeviceGetMode(VellDeviceRef device);
int VellDeviceGetCalibrationStatus(VellDeviceRef device);
int VellDeviceGetSoftwareMeasureAvailable(VellDeviceRef device);
int VellDeviceGetEnabled(VellDeviceRef device);
int VellDeviceGetAvailable(VellDeviceRef device);
int VellDeviceGetConnected(VellDeviceRef device);
int VellDeviceGetIsProxy(VellDeviceRef device);
int VellDeviceGetIsLocked(VellDeviceRef device); // 1 while there is a lock holder
VellStringRef VellDeviceGetLockHolder(VellDeviceRef device);
VellStringRef VellDeviceGetAttributeForKeyAsString(VellDeviceRef device, VellStringRef key);
int VellDeviceGetAttributeCount(VellDeviceRef device);
VellStringRef VellDeviceGetAttributeNameAtIndex(VellDeviceRef device, int index);

void VellDeviceSetName(VellDeviceRef device, VellStringRef name);
void VellDeviceSetSerialNumber(VellDeviceRef device, VellStringRef serialNumber);
void VellDeviceSetServiceVersion(VellDeviceRef device, VellStringRef version);
void VellDeviceSetModes(VellDeviceRef device, VellArrayRef modes);
void VellDeviceSetMode(VellDeviceRef device, VellStringRef mode);
void VellDeviceSetCalibrationStatus(VellDeviceRef device, int status);
void VellDeviceSetSoftwareMeasurementAvailable(VellDeviceRef device, int available);
void VellDeviceSetEnabled(VellDeviceRef device, int enabled);
void VellDeviceSetAvailable(VellDeviceRef device, int available);
void VellDeviceSetConnected(VellDeviceRef device, int connected);
void VellDeviceSetIsProxy(VellDeviceRef device, int proxy);
void VellDeviceSetLockHolder(VellDeviceRef device, VellStringRef holder); // null: nobody
void VellDeviceSetAttributeForKey(VellDeviceRef device, VellStringRef key, VellStringRef value);
void VellDeviceClearAttributes(VellDeviceRef device);
// Any thread; both return at once. Every client gets the record as it is now; a client that connects later
// gets the last one posted as its first frame.
void VellDevicePostStatus(VellDeviceRef device);
void VellDevicePostClose(VellDeviceRef device);

// Sends a command to the plug-in that owns the record; to this process's own observers when the record is its
// own. The command is copied; the receipt returned carries the ticket that the response's command will carry.
// Null when the plug-in is gone. The Send...Command calls are this with a command of that name.
VellReceiptRef VellDeviceSendCommand(VellDeviceRef device, VellDeviceCommandRef command);
VellReceiptRef VellDeviceSendCalibrateCommand(VellDeviceRef device);
VellReceiptRef VellDeviceSendStatusCommand(VellDeviceRef device);
VellReceiptRef VellDeviceSendEnableCommand(VellDeviceRef device, int enable); // "Enable" or "Disable"
VellReceiptRef VellDeviceSendMeasureCommand(VellDeviceRef device);
VellReceiptRef VellDeviceSendSetModeCommand(VellDeviceRef device, VellStringRef mode);

// --- Device center

// The one center of the process. It belongs to the thread that asks first; that thread's run loop is the
// center's.
VellDeviceCenterRef VellDeviceCenterGetDistributedCenter();
CFRunLoopRef VellDeviceCenterGetRunLoop(VellDeviceCenterRef center); // any thread
// Runs the center's loop on its own thread until it is stopped. A stop that comes before the loop runs still
// stops it.
void VellDeviceCenterRunLoop(VellDeviceCenterRef center);
// One pass: does what is ready and returns. On the center's thread: timers, then sockets, then a bounded
// number of commands, hardware events, device events and responses, one after another. Inside a callback of
// the loop (a command handler, an observer, a hardware callback, a timer): posts and timers only; everything
// else waits, in order, for the outer loop. On any other thread: only flushes outgoing posts.
void VellDeviceCenterRunLoopOnce(VellDeviceCenterRef center);
// Any thread. Flushes what is posted, partial writes included (bounded in time when a client does not read),
// closes and unlinks the socket and makes VellDeviceCenterRunLoop return.
void VellDeviceCenterStopRunLoop(VellDeviceCenterRef center);

// As a server: listens for clients on the source's socket in the runtime folder. A socket that a dead process
// left is replaced; one that answers is not. As a plain source: the name under which this process sends
// commands.
void VellDeviceCenterRegisterSourceName(VellDeviceCenterRef center, VellStringRef name);
void VellDeviceCenterRegisterSourceNameAsServer(VellDeviceCenterRef center, VellStringRef name);

using VellCommandCallback = void (*)(void* context, VellDeviceCommandRef command);
// Commands for the device name (null: for any). Pass 1 as `options`.
void VellDeviceCenterRegisterCommandObserver(VellDeviceCenterRef center, void* context,
                                             VellStringRef deviceName, VellCommandCallback callback,
                                             int options);
void VellDeviceCenterUnregisterCommandObserver(VellDeviceCenterRef center, void* context,
                                               VellStringRef deviceName);

// Clients. Observing devices, or asking for them, makes the center look for plug-ins in the runtime folder,
// connect to each, and go on looking while its loop runs. Events: 1 appeared, 2 status changed, 3 gone.
using VellDeviceCallback = void (*)(void* context, VellDeviceRef device, unsigned event);
void VellDeviceCenterRegisterDeviceObserver(VellDeviceCenterRef center, void* context,
                                            VellStringRef deviceName, VellDeviceCallback callback);
void VellDeviceCenterUnregisterDeviceObserver(VellDeviceCenterRef center, void* context,
                                              VellStringRef deviceName);
// Responses to the commands this process sent, and to those that a plug-in made itself (a press of the
// button).
using VellResponseCallback = void (*)(void* context, VellDeviceCommandResponseRef response);
void VellDeviceCenterRegisterResponseObserver(VellDeviceCenterRef center, void* context,
                                              VellResponseCallback callback);
void VellDeviceCenterUnregisterResponseObserver(VellDeviceCenterRef center, void* context);
VellDeviceRef VellDeviceCenterGetDeviceByName(VellDeviceCenterRef center,
                                              VellStringRef name);    // the first of that name
VellArrayRef VellDeviceCenterCopyDevices(VellDeviceCenterRef center); // all that are there
void VellDeviceCenterPostSimpleMessage(VellDeviceCenterRef center, VellStringRef first, VellStringRef second);

// --- Hardware

extern const VellStringRef kVellHardwareVendorID;    // "VendorID"
extern const VellStringRef kVellHardwareProductID;   // "ProductID"
extern const VellStringRef kVellHardwareDeviceClass; // "DeviceClass"

using VellHardwareCallback = void (*)(VellHardwareManagerRef manager, VellHardwareDeviceRef device,
                                      const void* context);
// The manager delivers on the loop of the thread that opened it, never inside VellHardwareManagerOpen, and
// may be closed inside its own callback.
VellHardwareManagerRef VellHardwareManagerCreate();
void VellHardwareManagerRegisterMatchCallback(VellHardwareManagerRef manager, VellHardwareCallback callback,
                                              const void* context);
void VellHardwareManagerRegisterRemovalCallback(VellHardwareManagerRef manager, VellHardwareCallback callback,
                                                const void* context);
// Vendor and product (numbers) and class (string); what is missing matches everything.
void VellHardwareManagerSetDeviceMatchingCriteria(VellHardwareManagerRef manager, VellDictionaryRef criteria);
void VellHardwareManagerOpen(VellHardwareManagerRef manager);
void VellHardwareManagerClose(VellHardwareManagerRef manager); // any thread

VellStringRef VellHardwareDeviceCopyPath(VellHardwareDeviceRef device);
// The device's file among the attached hardware; null when the platform has none.
VellStringRef VellHardwareDeviceCopyFilePath(VellHardwareDeviceRef device);
// Asks for the hardware as it is now. Null when there is no such sibling. Any thread.
VellHardwareDeviceRef VellHardwareDeviceCopyFirstSiblingWithInfo(VellHardwareDeviceRef device, int vendorID,
                                                                 int productID);

// --- Bundle properties

VellLibraryRef
VellLibraryCreate(VellStringRef bundlePath); // null for null; a bundle that is not there has no properties
VellObjectRef VellLibraryCopyPropertyForKey(VellLibraryRef library, const char* key); // null when missing

// --- Log

// Lines of the form "YYYY-MM-DD hh:mm:ss.mmm LEVEL [pid:thread] text". Any thread; lines never mix. Texts end
// with a newline. $VELL_LOG_LEVEL ("runtime", "debug", "info", "warning" or "error") names the lowest level
// that is written; by default "debug". A file that reaches 4 MiB is put aside once, as NAME.1.
void VellLogRuntime(const char* format, ...) __attribute__((format(printf, 1, 2)));
void VellLogDebug(const char* format, ...) __attribute__((format(printf, 1, 2)));
void VellLogInfo(const char* format, ...) __attribute__((format(printf, 1, 2)));
void VellLogWarning(const char* format, ...) __attribute__((format(printf, 1, 2)));
void VellLogError(const char* format, ...) __attribute__((format(printf, 1, 2)));
// A name is a file in the log folder; before the first call lines at warning level and above go to standard
// error. A log that cannot be written is reported once and loses nothing else.
void VellLogSetOutputFile(const char* name);
void VellLogBuildInformationForPlatform(CFBundleRef bundle); // null: of the platform itself
}
