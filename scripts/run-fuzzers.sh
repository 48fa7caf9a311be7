#!/usr/bin/env bash
# Placeholder until the fuzz targets land.
exit 0
