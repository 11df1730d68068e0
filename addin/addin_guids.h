// The fixed identifiers of the add-in: its own primary interface, the ribbon callback interface,
// the class of the add-in object and the type library that describes them. They are registered
// with Office and must never change.
#pragma once

#include "platform/com.h"

namespace mrwl {

// {2C8F0A85-507A-41A8-B005-A02590C6D464}: the primary dual interface of Addin (OnSettings,
// OnConvert, OnConvertPortfolio). It is not described in the type library.
inline constexpr IID IID_IOutlookAddin = {
    0x2C8F0A85, 0x507A, 0x41A8, {0xB0, 0x05, 0xA0, 0x25, 0x90, 0xC6, 0xD4, 0x64}};

// {0A2B2726-7F4B-4F5A-9512-EE60F2651E8D}: IRibbonCallback, the callbacks that the ribbon XML
// names.
inline constexpr IID IID_IRibbonCallback = {
    0x0A2B2726, 0x7F4B, 0x4F5A, {0x95, 0x12, 0xEE, 0x60, 0xF2, 0x65, 0x1E, 0x8D}};

// {D47BD98A-B3C5-4D37-8BA5-F1058527AC4A}: the class of the add-in object.
inline constexpr CLSID CLSID_Addin = {
    0xD47BD98A, 0xB3C5, 0x4D37, {0x8B, 0xA5, 0xF1, 0x05, 0x85, 0x27, 0xAC, 0x4A}};

// {B5B132C6-5150-47BB-94DB-7343149F66DC}: the AppID of the module, the registrar's %APPID%.
inline constexpr GUID APPID_OutlookAddin = {
    0xB5B132C6, 0x5150, 0x47BB, {0x94, 0xDB, 0x73, 0x43, 0x14, 0x9F, 0x66, 0xDC}};

// {2304365D-BB13-4162-B262-018399D69104}: the type library OutlookAddinLib, version 1.0.
inline constexpr GUID LIBID_OutlookAddinLib = {
    0x2304365D, 0xBB13, 0x4162, {0xB2, 0x62, 0x01, 0x83, 0x99, 0xD6, 0x91, 0x04}};
inline constexpr WORD kOutlookAddinLibMajor = 1;
inline constexpr WORD kOutlookAddinLibMinor = 0;

// Dispids of IRibbonCallback in the type library; the ribbon finds the callbacks by name and
// calls them by these numbers.
inline constexpr DISPID DISPID_GetImage = 12;
inline constexpr DISPID DISPID_GetEnabled = 22;
inline constexpr DISPID DISPID_OnRibbonLoaded = 32;
inline constexpr DISPID DISPID_RibbonHandler = 42;

}  // namespace mrwl
