// What the commands that write models from models share: options, progress, what they print.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>

#include "convert/converter.h"
#include "orb/text.h"

namespace orb {

// "q4_k" and the others that matrices may have.
const std::map<std::string, kiv::QuantType>& matrixTypes();

unsigned conversionThreads(const std::optional<int>& given);

// "orb 1.2.3", for the metadata.
std::string converterName();

// Runs the work under a progress bar; an interrupt makes it stop and gives a message of its own.
kiv::Status withProgress(const std::function<kiv::Status(const ConversionProgress&)>& work);

// How many tensors and bytes each pair of types has.
void printTypes(const ConversionReport& report);

// A line on the error stream for every tensor with values that no trained model has.
void warnOfValues(const ConversionReport& report);

// Opens the file that was written, runs every check of it and prints the last line. Returns the
// exit code.
int checkResult(const std::string& path, double seconds);

}  // namespace orb
