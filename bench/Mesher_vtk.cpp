// VTK's Flying Edges as the isosurface baseline of the mesher benchmark.
#include <vtkFlyingEdges3D.h>
#include <vtkFloatArray.h>
#include <vtkImageData.h>
#include <vtkPointData.h>
#include <vtkPolyData.h>
#include <vtkSMPTools.h>
#include <vtkSmartPointer.h>

#include "Mesher_baselines.h"

namespace vaporix::bench {

struct VtkFlyingEdges::Impl {
    vtkSmartPointer<vtkImageData> image;
    vtkSmartPointer<vtkFlyingEdges3D> filter;
};

VtkFlyingEdges::VtkFlyingEdges(const float* field, const int size[3], float iso, int threads)
    : mImpl(new Impl) {
    vtkSMPTools::Initialize(threads);
    mImpl->image = vtkSmartPointer<vtkImageData>::New();
    mImpl->image->SetDimensions(size[0], size[1], size[2]);
    auto values = vtkSmartPointer<vtkFloatArray>::New();
    // The field is used in place (save = 1: VTK does not free it).
    values->SetArray(const_cast<float*>(field),
                     static_cast<vtkIdType>(size[0]) * size[1] * size[2], 1);
    values->SetName("field");
    mImpl->image->GetPointData()->SetScalars(values);
    mImpl->filter = vtkSmartPointer<vtkFlyingEdges3D>::New();
    mImpl->filter->SetInputData(mImpl->image);
    mImpl->filter->SetValue(0, iso);
    mImpl->filter->ComputeNormalsOff();
    mImpl->filter->ComputeGradientsOff();
    mImpl->filter->ComputeScalarsOff();
    mImpl->filter->InterpolateAttributesOff();
}

VtkFlyingEdges::~VtkFlyingEdges() = default;

int64_t VtkFlyingEdges::run() {
    mImpl->filter->Modified();
    mImpl->filter->Update();
    return mImpl->filter->GetOutput()->GetNumberOfPolys();
}

}  // namespace vaporix::bench
