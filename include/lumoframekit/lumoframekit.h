#pragma once
// The whole public interface of the frame kit in one include.
#include "lumoframekit/export.h"
#include "lumoframekit/frame.h"
#include "lumoframekit/frame_pool.h"
#include "lumoframekit/frame_types.h"
#include "lumoframekit/lumo_frame.h"
#include "lumoframekit/memory_limiter.h"
#include "lumoframekit/bayer_frame.h"
#include "lumoframekit/color_frames.h"
#include "lumoframekit/metadata.h"
#include "lumoframekit/monochrome_frame.h"
#include "lumoframekit/packed_monochrome_frame.h"
#include "rigutil/rigutil.h"
