// Objects of the library: which are alive, and those of their functions that have hooks.
#pragma once

#include <set>

#include "FileUtils/File.h"

namespace Machine {

using Quellon::FileUtils::Ifile;

/// The file objects made without a path, as a catalogue makes them, that are alive. So a test sees
/// those a catalogue deletes and those it leaves to others on purpose.
std::set<Ifile*> LiveFiles();

/// Deletes those that are left; call it when no catalogue is.
void DeleteLiveFiles();

/// `Ifile::Remove` as the library has it, without asking the hook.
bool Remove(Ifile& file);

/// How many disks were destroyed.
int DestroyedDisks();

}  // namespace Machine
