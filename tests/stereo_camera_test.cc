#include <cmath>
#include <fstream>
#include <iterator>
#include <regex>

#include "fuzz/stereo_camera_properties.h"
#include "qx_utils/stereo/camera/lens.h"
#include "tests/testing/error_of.h"
#include "tests/testing/temp_path.h"
#include "tests/testing/test.h"

namespace qx::utils::stereo {
namespace {

using fuzzing::Texts;
using fuzzing::TextsOf;
using testing::ErrorOf;

std::string Contents(const std::string& path) {
  std::ifstream stream(path);
  EXPECT_TRUE(stream) << path;
  return {std::istreambuf_iterator<char>(stream), {}};
}

// A file of the fuzzer's corpus, which are good ones.
std::string Good(const std::string& name) { return Contents(QXTOOLS_CALIBRATIONS "/" + name); }

std::string Replaced(std::string text, const std::string& from, const std::string& to) {
  const std::size_t at = text.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

std::string ParseError(const Texts& texts) {
  return ErrorOf<std::invalid_argument>([&] { ParseStereoCalibration(texts); });
}

std::vector<double> ValuesOf(const StereoCalibration& calibration) {
  std::vector<double> values(calibration.rotation.begin(), calibration.rotation.end());
  const auto add = [&](const auto& more) { values.insert(values.end(), more.begin(), more.end()); };
  add(calibration.translation);
  for (const CameraCalibration& camera : {calibration.left, calibration.right}) {
    add(std::vector<double>{1.0 * camera.width, 1.0 * camera.height});
    add(camera.camera_matrix);
    add(camera.distortion);
    add(camera.rectification);
    add(camera.projection);
  }
  return values;
}

TEST(StereoCamera, ReadsTheSameFromEveryFormatAndSpelling) {
  const StereoCalibration expected = {{640,
                                       480,
                                       {500, 0, 318, 0, 505, 242, 0, 0, 1},
                                       DistortionModel::kPlumbBob,
                                       {-0.25, 0.125, 0.001, -0.002, -0.03},
                                       {1, 0, 0, 0, 1, 0, 0, 0, 1},
                                       {400, 0, 320, 0, 0, 400, 240, 0, 0, 0, 1, 0}},
                                      {640,
                                       480,
                                       {510, 0, 324, 0, 515, 238, 0, 0, 1},
                                       DistortionModel::kPlumbBob,
                                       {-0.24, 0.11, 0.003, 0.004, -0.02},
                                       {0.96, 0, 0.28, 0, 1, 0, -0.28, 0, 0.96},
                                       {400, 0, 330, -200, 0, 400, 240, 0, 0, 0, 1, 0}},
                                      {0.96, 0, -0.28, 0, 1, 0, 0.28, 0, 0.96},
                                      {-0.48, 0, -0.14},
                                      true};
  using Renamings = std::vector<std::pair<std::string, std::string>>;
  std::vector<std::string> texts = {Good("camera_info"), Good("left_right.yaml")};
  for (const Renamings& renamings : std::vector<Renamings>{
           {},
           {{"M1:", "K1:"}, {"M2:", "K2:"}},
           {{"M1:", "cameraMatrix1:"}, {"D1:", "distCoeffs1:"}, {"D2:", "distCoeffs2:"}},
           {{"M1:", "cameraMatrixL:"}, {"M2:", "cameraMatrixR:"}, {"D2:", "distCoeffsR:"}},
           {{"M1:", "cameraMatrixLeft:"}, {"D2:", "distCoeffsRight:"}},
           {{"R:", "rotation:"}, {"T:", "translation:"}},
           {{"R:", "\fR:"}},
           {{"M2:", "\fM2:"},
            {"%YAML:1.0\n---", "image_height: 480"},
            {"D2:", "image_width: 640\nD2:"}},
           {{"%YAML:1.0", "\xEF\xBB\xBF%YAML:1.0\r"}, {"---\n", ""}}}) {
    texts.push_back(Good("stereo.yml"));
    for (const auto& [from, to] : renamings) texts.back() = Replaced(texts.back(), from, to);
  }
  for (const std::string& text : texts) {
    const StereoCalibration actual = ParseStereoCalibration(TextsOf(text));
    EXPECT_THAT(ValuesOf(actual),
                ::testing::Pointwise(::testing::DoubleNear(1e-15), ValuesOf(expected)))
        << text;
    EXPECT_TRUE(actual.has_rectification);
  }
}

// The page's table: each row changes one of the good files.
TEST(StereoCamera, FaultyFilesGetWhatTheirPageSays) {
  const std::string page = Contents(QXTOOLS_CALIBRATION_PAGE);
  const std::regex row("\n\\| `([^`]+)` → `([^`]*)` \\| `([^`]+)` \\|");
  const std::sregex_iterator rows(page.begin(), page.end(), row), end;
  EXPECT_GT(std::distance(rows, end), 40);
  for (auto i = rows; i != end; ++i) {
    const bool opencv = (*i)[3].str().rfind("stereo.yml", 0) == 0;
    const std::string text = Good(opencv ? "stereo.yml" : "camera_info");
    EXPECT_EQ(ParseError(TextsOf(Replaced(text, (*i)[1], (*i)[2]))), (*i)[3]) << i->str();
  }
}

TEST(StereoCamera, RefusesWhatIsNoCalibration) {
  const std::string opencv = Good("stereo.yml");
  const Texts ros = TextsOf(Good("camera_info")), pair = TextsOf(Good("intrinsics_extrinsics"));
  const std::string six = Replaced(Replaced(opencv, "cols: 5", "cols: 6"), "-0.03", "-0.03, 0.");
  const std::string turned = Replaced(Replaced(opencv, "R1:", "R3:"), "R2:", "R1:");
  const std::vector<std::pair<Texts, std::string>> refusals = {
      {{}, "a calibration is one file or two, not 0"},
      {{{"stereo.yml", " \n"}}, "stereo.yml:1: is empty"},
      {{{"stereo.yml", "\x89PNG\n"}}, "stereo.yml:1: has no named values"},
      {{{"stereo.yml", std::string("a: \0", 4)}}, "stereo.yml:1: is not a text file"},
      {{{"stereo.yml", "\n<?xml version=\"1.0\"?>"}},
       "stereo.yml:1: is XML: write the calibration as YAML, as OpenCV does for *.yml"},
      {{{"stereo.yml", "stereo.yml: [" + std::string(9, '\n') + std::string(100001, ',')}},
       "stereo.yml:10: more than 100000 values"},
      {{{"stereo.yml", opencv.substr(0, opencv.find("505."))}},
       "stereo.yml:10: is not YAML: end of sequence flow not found"},
      {{{"stereo.yml", six}}, "stereo.yml:12: 'D1' has 6 values, expected 4, 5, 8, 12 or 14"},
      {{{"stereo.yml", Replaced(turned, "R3:", "R2:")}},
       "stereo.yml:41: 'R2' does not agree with 'R' in stereo.yml:29"},
      {{ros[0]},
       "left.yaml:1: describes one camera: give the left camera's file and the right one's"},
      {{ros[0], ros[0]},
       "left.yaml:17: 'projection_matrix' has no baseline (the fourth value): "
       "it is not the right camera's of a pair"},
      {{ros[1], ros[1]},
       "right.yaml:17: 'projection_matrix' has a baseline, as only the right camera's has: "
       "it is not the left camera's"},
      {{ros[1], ros[0]},
       "right.yaml:17: 'projection_matrix' has a baseline, as only the right camera's has: "
       "left and right are swapped"},
      {{ros[0], pair[1]}, "right.yaml:1: has no 'camera_matrix', unlike the other file"},
      {{pair[0]}, "left.yaml:1: 'R' is missing: the rotation between the cameras"},
      {{pair[1]}, "right.yaml:1: 'M1' is missing"},
      {{pair[0], pair[0]},
       "left.yaml:3: 'image_size' is there twice: also 'image_size' in left.yaml:3"}};
  const std::string page = Contents(QXTOOLS_CALIBRATION_PAGE);
  for (const auto& [texts, expected] : refusals) {
    EXPECT_EQ(ParseError(texts), expected);
    EXPECT_THAT(page, HasSubstr(expected));
  }

  const std::string path = testing::TempPath("calibration.yml");
  std::ofstream(path) << std::string((1U << 20) + 1, '#');
  EXPECT_EQ(ErrorOf([&] { ReadStereoCalibration({path}); }), path + ":1: is larger than 1 MiB");
  std::remove(path.c_str());
  EXPECT_EQ(ErrorOf([&] { ReadStereoCalibration({path}); }), path + ": cannot be opened");
  EXPECT_EQ(ErrorOf([] { ReadStereoCalibration({"/"}); }), "/: is a directory");
}

TEST(StereoCamera, FilesThatAreCutOffAreReadOrRefused) {
  for (const char* name : {"camera_info", "fisheye.yml", "left_right.yaml"}) {
    const std::string text = Good(name);
    for (std::size_t size = 0; size < text.size(); ++size) {
      fuzzing::CheckCalibration(TextsOf(text.substr(0, size)));
    }
  }
}

TEST(StereoCamera, RefusesPicturesOfAnotherSizeAndCamerasThatLookApart) {
  const auto error_of = [](StereoCalibration calibration, int width, int height) {
    return ErrorOf([&] { ComputeRectification(calibration, width, height); });
  };
  StereoCalibration calibration = ParseStereoCalibration(TextsOf(Good("stereo.yml")));
  EXPECT_EQ(error_of(calibration, 640, 360),
            "the pictures are 640 x 360, but the calibration is of 640 x 480");
  EXPECT_EQ(
      error_of(ParseStereoCalibration(TextsOf(Good("fisheye.yml"))), 1280, 960),
      "the pictures are 1280 x 960, but the calibration has the left camera's principal point "
      "at 318, 242: it is of another picture size, or needs image_width and image_height");
  const std::string apart = "the calibration cannot be rectified: the cameras hardly see the same";
  calibration.rotation = RotationOf({0, 1.2, 0});  // the pictures are 65 degrees wide
  EXPECT_EQ(error_of(calibration, 640, 480), apart);
  calibration.rotation = RotationOf({0, 0, 3.141592653589793});  // upside down
  EXPECT_EQ(error_of(calibration, 640, 480), apart);
  calibration.has_rectification = false;
  EXPECT_EQ(ErrorOf([&] { GeometryOf(calibration); }), "the calibration has no rectification");
}

// Returns: how far the rectified picture's edge stays inside the raw picture, at least, in pixels.
double Margin(const CameraCalibration& camera, int width, int height) {
  double margin = width;
  const auto& p = camera.projection;
  for (int i = 0; i <= 2 * (width + height); ++i) {
    const double along = i % (width + height), x = std::fmin(along, width - 1.0);
    const double y = std::fmax(0.0, along - width) * (height - 1.0) / height;
    const double column = i < width + height ? x : width - 1 - x;
    const double row = i < width + height ? y : height - 1 - y;
    const Vector3 ray = {(column - p[2]) / p[0], (row - p[6]) / p[5], 1};
    const Vector2 raw = PixelOf(camera, Multiply(Transpose(camera.rectification), ray));
    margin = std::min({margin, raw[0], raw[1], width - 1 - raw[0], height - 1 - raw[1]});
  }
  return margin;
}

TEST(StereoCamera, ComputesTheWidestRectificationThatIsCovered) {
  for (const char* name : {"stereo.yml", "intrinsics_extrinsics", "fisheye.yml"}) {
    StereoCalibration calibration = ParseStereoCalibration(TextsOf(Good(name)));
    ComputeRectification(calibration, 640, 480);
    fuzzing::CheckRectification(calibration);
    const double left = Margin(calibration.left, 640, 480);
    const double right = Margin(calibration.right, 640, 480);
    EXPECT_GT(std::fmin(left, right), -0.1) << name;
    EXPECT_LT(std::fmin(left, right), 0.1) << name;
  }
}

}  // namespace
}  // namespace qx::utils::stereo
