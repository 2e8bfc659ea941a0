// Mesh subdivision: the choice of facets from rendered facet maps, and the
// division of the chosen facets without T-junctions.
#pragma once

#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

#include "ProgramCUDA.h"
#include "RefinementSettings.h"
#include "TriMesh.h"
#include "mycamera.h"

// Splits every edge of each facet whose bit is set at its midpoint,
// then cuts every facet that owns a split edge into two, three or four
// children. Appends vertices and facets, keeps every existing index, and
// rebuilds edges, facet_edges, valences and num_valences for the mesh as it
// was at entry. One bit per facet; its size should equal num_f.
void divideFacets(TriMesh& mesh, const std::vector<bool>& facet_divide_indicator);

// One camera: makes the four images at LV rows and LU columns
// (depth and both weights CV_32F, facet CV_32S), clears them (largest finite
// float, -1, -1.0, -1.0) and renders the mesh into them with the z-buffer of
// `device`, area origin (0, 0). Returns false when the device refused or
// failed the render (it has printed an "Error: " line); the images then hold
// no usable facet map. A negative extent renders nothing and returns true.
bool renderFacetMaps(const TriMesh& mesh, const DeviceHandle& device, const mycamera& camera, int LU, int LV,
                     cv::Mat& depth_image, cv::Mat& facet_image, cv::Mat& bary_b_image, cv::Mat& bary_c_image);

// Clearing, counting and selection of one pass on facet maps already rendered:
// sizes facet_divide_indicator and facet_view_count to num_f, counts for each
// facet the images in which it covers selection.min_pixels (50) or more
// pixels of the LU x LV area (a pixel holding -1, or an index not below
// num_f, counts for nobody), and sets the bit of each facet seen in at least
// selection.min_images (2) images none of whose vertices has no_divide.
// Returns the number of selected facets. Each pixel is read once. Every
// facet image must have at least LV rows and LU columns, of type CV_32S.
int32_t selectFacetsForDivision(const TriMesh& mesh, const std::vector<cv::Mat>& facet_images, int LU, int LV,
                                std::vector<bool>& facet_divide_indicator, std::vector<int32_t>& facet_view_count,
                                const FacetSelection& selection = FacetSelection());

// At most `passes` (2) passes of render, select, divide, rendering on
// `device`. Prints "subdividing at level <pass> : <count> facets" before
// each division and "stop dividing" when a pass selects nothing. Of the
// level's images only their number and sizes are read (the facet's
// footprint alone decides). Returns false when a render failed: nothing is
// selected from it, and the mesh stays as the passes before it left it.
// Inconsistent lists are reported and do not make it fail.
bool subdivideMeshAdaptively(TriMesh& mesh, const DeviceHandle& device, const std::vector<mycamera>& cameraList,
                             const std::vector<cv::Mat>& levelImages, int LU, int LV,
                             const FacetSelection& selection = FacetSelection(), int passes = 2);

// The same from the sizes of the level's images, rendering only the cameras
// whose `renderedHere` entry is true (all when it is empty). In a run shared
// by several processes (the device's run context) each renders its own
// cameras, and the per-facet counts of images are added up over all of them
// before any facet is chosen, so that every process divides the same facets.
// A render that failed on any process makes every one return false.
bool subdivideMeshAdaptively(TriMesh& mesh, const DeviceHandle& device, const std::vector<mycamera>& cameraList,
                             const std::vector<cv::Size>& imageSizes, int LU, int LV, const FacetSelection& selection,
                             int passes, const std::vector<bool>& renderedHere);
