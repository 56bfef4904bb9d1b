#ifndef DSPNETGRAPHGEOMETRY_H
#define DSPNETGRAPHGEOMETRY_H

// The grid the DSP network is laid out on, in unscaled pixels, shared by
// the layout, the sizing and the hit test of DSPNetGraph.
namespace DSPNetGraphGeometry
{

const int NodeWidth = 120;
const int NodeHeight = 45;
const int ColumnPitch = 200;
const int RowPitch = 75;
const int Margin = 10;
const int GroupInset = 4;
const int ParentGroupMargin = 4;
const int ExtraWidth = 270;
const int ExtraHeight = 95;

} // namespace DSPNetGraphGeometry

#endif // DSPNETGRAPHGEOMETRY_H
