// The project descriptor: an XML file in each bank directory that says by which base name and extension the bank's
// firmware files are recognised, and which version they carry.
//
//   PrjDsc_SetPathFilename("i:/vol0/data/app/ProjectDescriptorFile.xml");
//   if (PrjDsc_Parse() == 0 && PrjDsc_GetFileType("i:/vol0/data/app/bin/boot.bin") == kPrjDscBootloader)
//       std::printf("%s\n", PrjDsc_GetVersion(kPrjDscBootloader));
//
// The file has, at any depth, one element a type, with three direct children:
//
//   <MainApplication>                                            also <RescueApplication>, <SecondaryBootloader>
//     <BaseFileName>demo</BaseFileName>                          at most 256 bytes
//     <BaseFileExtension>.bin</BaseFileExtension>                at most 16 bytes; the leading "." may be left out
//     <Version>1.2.3</Version>                                   at most 16 bytes
//   </MainApplication>
//
// Values are taken byte for byte, white space included. The first match in document order counts, and names match by
// their beginning. XmlExtractor.h says how little of XML is understood. The application and the bootloader are
// required, the rescue image is not.
//
// One descriptor is held at a time; each parse begins with an empty one.
#pragma once

#include <cstdint>

extern "C" {

// Type of a bank's file; the first three are the descriptor's entries.
enum PrjDscFileType : int {
    kPrjDscBootloader = 0,
    kPrjDscRescue = 1,
    kPrjDscApplication = 2,
    kPrjDscNone = 4,
};

// Sets the descriptor's path, at most 256 bytes of it.
void PrjDsc_SetPathFilename(const char *path);

// Reads and takes over the descriptor. Returns 0, or -1 where it cannot be read, holds no element, or lacks a valid
// entry of a required type.
//
// Prints "\tFatal Error : read file failed with errno=%i", without a line end, when the read fails; the size query
// (PJFS.h) has a message of its own before it. A missing file shows in both. Other failures print nothing.
int PrjDsc_Parse(void);

// The first type, in the order of their numbers, whose extension and base name both occur somewhere in the path,
// directories included; kPrjDscNone if there is none.
int PrjDsc_GetFileType(const char *path);

// The version text of an entry, empty where it was not filled. `type` is 0 to 2 and not checked.
const char *PrjDsc_GetVersion(int type);

} // extern "C"
