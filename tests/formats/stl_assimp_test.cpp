// Files written by another library's STL exporter (assimp), read back by quib::Stl.
#include <quib/stl.hpp>

#include <assimp/cexport.h>
#include <assimp/scene.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <string>

namespace {

namespace fs = std::filesystem;

// A scene of one mesh: `count` triangles with distinct, awkward coordinates.
aiScene* make_scene(unsigned count) {
  auto* scene = new aiScene;
  scene->mRootNode = new aiNode;
  scene->mRootNode->mNumMeshes = 1;
  scene->mRootNode->mMeshes = new unsigned[1]{0};
  scene->mNumMaterials = 1;
  scene->mMaterials = new aiMaterial* [1] { new aiMaterial };
  scene->mNumMeshes = 1;
  scene->mMeshes = new aiMesh* [1] { new aiMesh };
  aiMesh* mesh = scene->mMeshes[0];
  mesh->mPrimitiveTypes = aiPrimitiveType_TRIANGLE;
  mesh->mNumVertices = 3 * count;
  mesh->mVertices = new aiVector3D[3 * count];
  mesh->mNumFaces = count;
  mesh->mFaces = new aiFace[count];
  std::mt19937 random(3);
  std::uniform_real_distribution<float> coordinate(-1000.0f, 1000.0f);
  for (unsigned i = 0; i < 3 * count; ++i) {
    mesh->mVertices[i] = aiVector3D(coordinate(random), coordinate(random), 0.001f * float(i));
  }
  for (unsigned f = 0; f < count; ++f) {
    mesh->mFaces[f].mNumIndices = 3;
    mesh->mFaces[f].mIndices = new unsigned[3]{3 * f, 3 * f + 1, 3 * f + 2};
  }
  return scene;
}

TEST(StlFromAssimp, ReadsBothEncodingsOfAnotherExporter) {
  const fs::path dir =
      fs::temp_directory_path() / ("quib_stl_assimp_" + std::to_string(std::random_device()()));
  fs::create_directories(dir);
  aiScene* scene = make_scene(50);
  aiMesh const* source = scene->mMeshes[0];
  for (char const* format : {"stlb", "stl"}) {
    SCOPED_TRACE(format);
    const fs::path file = dir / (std::string(format) + ".stl");
    ASSERT_EQ(aiExportScene(scene, format, file.string().c_str(), 0), aiReturn_SUCCESS);
    quib::Stl mesh;
    ASSERT_EQ(mesh.load(file.wstring(), false), 50);
    ASSERT_EQ(mesh.size(), 150);
    for (int i = 0; i < 150; ++i) {
      const aiVector3D& v = source->mVertices[i];
      // Binary copies the floats; text prints them with enough digits to come back close.
      const float tolerance = format[3] == 'b' ? 0.0f : 1e-3f;
      EXPECT_LE((mesh.point(i) - Eigen::Vector3f(v.x, v.y, v.z)).cwiseAbs().maxCoeff(), tolerance);
    }
    quib::Stl merged(file.wstring(), true);
    EXPECT_EQ(merged.size(), 150);
  }
  delete scene;
  std::error_code ec;
  fs::remove_all(dir, ec);
}

}  // namespace
