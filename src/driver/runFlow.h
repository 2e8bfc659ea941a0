// The tool's entry: command line, start-up, level loop, timing and saving.
#pragma once

#include "ProgramCUDA.h"
#include "RefinementSettings.h"
#include "SfmScene.h"
#include "processStart.h"
#include "sharedScene.h"
#include "TriMesh.h"

// Runs the whole tool; returns the process exit status (0 when the arguments
// were refused or the run could not start, 1 at the end of a run).
// `processes` are those of the job the tool runs in (startProcesses; one
// process by default).
int runTessalineRefine(int argc, char** argv, const ProcessStart& processes = ProcessStart());

// The level loop: from level 2 down to levelOfDetails, subdividing at every
// pass and refining where the level table of `settings` says so, every call
// on `device`; the scene holds at least one image. In a run shared by
// several processes (`share` of more than one), this process renders and
// refines its share of the cameras, and every process ends each level with
// the same mesh.
// Returns false when a stage could not work on the level's lists or the
// device did not complete a call (it has printed why); the run then stops
// without writing.
bool runLevels(TriMesh& mesh, const SfmScene& scene, int levelOfDetails, const DeviceHandle& device,
               const RefinementSettings& settings = RefinementSettings(), const SceneShare* share = nullptr);
