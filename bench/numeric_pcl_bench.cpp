// The peer of RANSAC_Plane: PCL's SACSegmentation on the same cloud, threshold 0.01,
// probability 0.99, without refining the coefficients (RANSAC_Plane does not refine either).
#include <benchmark/benchmark.h>

#include <pcl/ModelCoefficients.h>
#include <pcl/point_cloud.h>
#include <pcl/point_types.h>
#include <pcl/sample_consensus/method_types.h>
#include <pcl/sample_consensus/model_types.h>
#include <pcl/segmentation/sac_segmentation.h>

#include "numeric_data.hpp"

namespace {

void BM_PclSacSegmentation(benchmark::State& state) {
  const auto pts = bench::plane_cloud<Eigen::Vector3f>(bench::smoke() ? 2000 : 1000000, 0.3);
  pcl::PointCloud<pcl::PointXYZ>::Ptr cloud(new pcl::PointCloud<pcl::PointXYZ>);
  for (const auto& p : pts)
    cloud->push_back(pcl::PointXYZ(p[0], p[1], p[2]));
  pcl::SACSegmentation<pcl::PointXYZ> seg;
  seg.setOptimizeCoefficients(false);
  seg.setModelType(pcl::SACMODEL_PLANE);
  seg.setMethodType(pcl::SAC_RANSAC);
  seg.setDistanceThreshold(0.01);
  seg.setProbability(0.99);
  seg.setInputCloud(cloud);
  pcl::PointIndices inliers;
  pcl::ModelCoefficients coefficients;
  for (auto _ : state) {
    seg.segment(inliers, coefficients);
    benchmark::DoNotOptimize(inliers.indices.data());
  }
  state.counters["inliers"] = static_cast<double>(inliers.indices.size());
}
BENCHMARK(BM_PclSacSegmentation)->Unit(benchmark::kMillisecond);

}  // namespace
