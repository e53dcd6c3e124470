"""Proxy classes in C++ from D-Bus introspection XML: parser, checked model, templates."""

__version__ = "0.2.0"
