/*
 * The GStreamer plugin "naxaec": elements naxaec and naxechoprobe.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "naxaec.h"
#include "naxechoprobe.h"

#include "nax_aec.h"

#define TEXT_OF(number) #number
#define VERSION_TEXT(major, minor, patch) TEXT_OF(major) "." TEXT_OF(minor) "." TEXT_OF(patch)
#define PACKAGE "nax_aec"

static gboolean register_elements(GstPlugin *plugin)
{
    return gst_element_register(plugin, "naxaec", GST_RANK_NONE, nax_aec_element_get_type()) &&
           gst_element_register(plugin, "naxechoprobe", GST_RANK_NONE, nax_echo_probe_get_type());
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, naxaec, "Acoustic echo cancellation",
                  register_elements,
                  VERSION_TEXT(NAX_AEC_VERSION_MAJOR, NAX_AEC_VERSION_MINOR, NAX_AEC_VERSION_PATCH),
                  "MIT/X11", PACKAGE, "https://example.org/nax_aec")
