// tessaline_compare REFERENCE.ply TEST.ply [--samples N] [--json]: accuracy
// and completeness of TEST against REFERENCE.
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>

#include <CLI/CLI.hpp>

#include "CommandLine.h"
#include "MeshCompare.h"
#include "AnyMesh.h"
#include "plyIO.h"

namespace tessaline::compare {

int runCompareCommand(int argc, char** argv) {
    std::string referencePath, testPath;
    size_t samples = 100000;
    bool json = false;
    CLI::App app{"Accuracy (TEST to REFERENCE) and completeness (REFERENCE to TEST) of a mesh against a "
                 "reference mesh, from points sampled uniformly by area."};
    app.add_option("REFERENCE", referencePath, "Reference mesh (ASCII PLY)")->required();
    app.add_option("TEST", testPath, "Mesh to measure (ASCII PLY)")->required();
    app.add_option("--samples", samples, "Points sampled on each mesh")
        ->capture_default_str()
        ->check(CLI::Range(size_t(1), size_t(100000000)));
    app.add_flag("--json", json, "Print the result as one line of JSON (the last line of the output)");
    if (const auto status = cli::parse(app, argc, argv)) return *status;

    try {
        TriMesh reference, test;
        std::string error;
        if (!tessaline_tools::readAnyMesh(referencePath, reference, error))
            return cli::fail("cannot read the reference mesh " + referencePath + ": " + error);
        if (!tessaline_tools::readAnyMesh(testPath, test, error))
            return cli::fail("cannot read the test mesh " + testPath + ": " + error);
        MeshComparison result;
        if (!compareMeshes(reference, test, samples, result, error)) return cli::fail(error);
        if (json) {
            std::cout << comparisonJson(result, referencePath, testPath) << std::endl;
        } else {
            std::cout << "reference: " << referencePath << " (" << reference.num_v << " vertices, " << reference.num_f
                      << " facets)\n";
            std::cout << "test:      " << testPath << " (" << test.num_v << " vertices, " << test.num_f
                      << " facets)\n";
            std::cout << "accuracy: test to reference; completeness: reference to test\n";
            std::cout << comparisonTable(result) << std::flush;
        }
        return cli::kSuccess;
    } catch (const std::exception& e) {
        // Allocation failures and library errors end here, not in an abort.
        return cli::fail(e.what());
    }
}

}  // namespace tessaline::compare
