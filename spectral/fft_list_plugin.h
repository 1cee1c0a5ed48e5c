// Included inside CImgList<T> through cimglist_plugin: the list form of the FFT
// entry, for a complex image kept as the list (real plane, imaginary plane).
// An empty list is left alone, a lone real plane gets a zero imaginary plane,
// and entries past the second are ignored with a warning.
CImgList<T>& FFT(const bool invert, pthread_mutex_t* const mutex) {
  if (is_empty()) return *this;
  if (_width == 1)
    insert(1);
  else if (_width > 2 && cimg::exception_mode())
    std::fprintf(cimg::output(),
                 "\n[CImg] *** Warning ***CImgList<%s>::FFT() : Instance list (%u,%p) have more than 2 "
                 "images",
                 "float", _width, (const void*)_data);
  CImg<T>::FFT(_data[0], _data[1], invert, mutex);
  return *this;
}
