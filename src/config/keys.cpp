// The settings table: every simple key with its type and variable, in the order of the file, and the
// variables themselves, whose start values are the defaults. Generated from the key list together with
// config_vars.h.
#include "config/config.h"
#include "os/os.h"

// Text settings point here until config_defaults gives them heap texts; it is never freed.
char config_empty_text[1];

int32_t window_x = 0;
int32_t window_y = 0;
int32_t window_wide = 0;
int32_t window_high = 0;
uint8_t maximized = 0;
uint8_t minimized = 0;
uint8_t fullscreen = 0;
uint8_t ontop = 0;
uint8_t bring_into_view = 1;
int32_t alpha = 255;
uint8_t match_whole_word = 0;
uint8_t match_path = 0;
uint8_t match_case = 0;
uint8_t match_diacritics = 0;
uint8_t match_regex = 0;
uint8_t view = 0;
int32_t thumbnail_size = 64;
uint8_t thumbnail_fill = 0;
int32_t min_thumbnail_size = 32;
int32_t max_thumbnail_size = 256;
int32_t medium_thumbnail_size = 64;
int32_t large_thumbnail_size = 128;
int32_t extra_large_thumbnail_size = 256;
int32_t thumbnail_load_size = 0;
uint8_t thumbnail_overlay_icon = 1;
uint8_t shell_max_path = 0;
uint8_t allow_multiple_windows = 0;
uint8_t allow_multiple_instances = 0;
uint8_t run_in_background = 1;
uint8_t show_in_taskbar = 1;
uint8_t show_tray_icon = 1;
uint8_t minimize_to_tray = 0;
uint8_t toggle_window_from_tray_icon = 0;
uint8_t alternate_row_color = 0;
uint8_t show_mouseover = 0;
uint8_t check_for_updates_on_startup = 0;
uint8_t beta_updates = 0;
uint8_t show_highlighted_search_terms = 1;
int32_t text_size = 0;
uint8_t hide_empty_search_results = 0;
uint8_t clear_selection_on_search = 1;
uint8_t show_focus_on_search = 0;
int32_t new_window_key = 0;
int32_t show_window_key = 0;
int32_t toggle_window_key = 0;
int32_t language = 0;
uint8_t show_selected_item_in_statusbar = 1;
char *statusbar_selected_item_format = config_empty_text;
uint8_t show_size_in_statusbar = 0;
uint8_t statusbar_size_format = 0;
char *open_folder_command2 = config_empty_text;
char *open_file_command2 = config_empty_text;
char *open_path_command2 = config_empty_text;
char *explore_command2 = config_empty_text;
char *explore_path_command2 = config_empty_text;
char *window_title_format = config_empty_text;
char *taskbar_notification_title_format = config_empty_text;
char *instance_name = config_empty_text;
int32_t translucent_selection_rectangle_alpha = 70;
int32_t min_zoom = -6;
int32_t max_zoom = 27;
uint8_t context_menu_type = 0;
uint8_t context_menu_shell_extensions = 1;
uint8_t auto_include_fixed_volumes = 1;
uint8_t auto_include_removable_volumes = 0;
uint8_t auto_remove_offline_ntfs_volumes = 1;
uint8_t auto_remove_moved_ntfs_volumes = 1;
uint8_t auto_include_fixed_refs_volumes = 1;
uint8_t auto_include_removable_refs_volumes = 0;
uint8_t auto_remove_offline_refs_volumes = 1;
uint8_t auto_remove_moved_refs_volumes = 1;
uint8_t find_mount_points_on_removable_volumes = 0;
uint8_t scan_volume_drive_letters = 1;
uint8_t last_export_type = 0;
int32_t find_subfolders_and_files_max_threads = 0;
uint8_t single_parent_context_menu = 0;
int32_t auto_size_1 = 512;
int32_t auto_size_2 = 640;
int32_t auto_size_3 = 768;
int32_t auto_size_aspect_ratio_x = 9;
int32_t auto_size_aspect_ratio_y = 7;
uint8_t auto_size_width_only = 0;
int32_t auto_size_path_x = 1;
int32_t auto_size_path_y = 2;
uint8_t sticky_vscroll_bottom = 1;
uint8_t last_options_page = 0;
uint8_t draw_focus_rect = 1;
char *date_format = config_empty_text;
char *time_format = config_empty_text;
int32_t listview_item_high = 0;
uint8_t single_click_open = 0;
uint8_t underline_icon_titles = 0;
uint8_t icons_only = 0;
uint8_t icon_shell_extensions = 1;
int32_t auto_scroll_repeat_delay = 250;
int32_t auto_scroll_repeat_rate = 50;
int32_t open_many_files_warning_threshold = 16;
uint8_t set_foreground_window_attach_thread_input = 0;
uint8_t debug = 0;
uint8_t debug_log = 0;
uint8_t verbose = 0;
uint8_t lvm = 1;
uint8_t ipc = 1;
uint8_t home_match_case = 0;
uint8_t home_match_whole_word = 0;
uint8_t home_match_path = 0;
uint8_t home_match_diacritics = 0;
uint8_t home_regex = 0;
uint8_t home_search = 1;
uint8_t home_filter = 0;
uint8_t home_sort = 0;
uint8_t home_view = 0;
uint8_t home_index = 1;
uint8_t allow_multiple_windows_from_tray = 0;
uint8_t single_click_tray = 0;
uint8_t close_on_execute = 0;
uint8_t double_click_path = 0;
uint8_t update_display_after_scroll = 0;
uint8_t update_display_after_mask = 1;
uint8_t auto_scroll_view = 0;
uint8_t double_quote_copy_as_path = 0;
uint8_t snap = 0;
int32_t snaplen = 10;
uint8_t rename_select_filepart_only = 0;
uint8_t rename_move_caret_to_selection_end = 0;
uint8_t rename_nav = 0;
uint8_t search_edit_move_caret_to_selection_end = 0;
uint8_t search_edit_drag_accept_files = 0;
uint8_t select_search_on_mouse_click = 1;
uint8_t focus_search_on_activate = 0;
uint8_t reset_vscroll_on_search = 1;
uint8_t wrap_focus = 0;
uint8_t load_icon_priority = 0;
uint8_t load_thumbnail_priority = 0;
uint8_t load_fileinfo_priority = 0;
uint8_t always_request_all_fileinfo = 0;
int32_t header_high = 0;
uint8_t hide_on_close = 0;
int32_t max_hidden_windows = 0;
uint8_t winmm = 0;
uint8_t menu_escape_amp = 1;
uint8_t menu_folders = 0;
char *menu_folder_separator = config_empty_text;
int32_t menu_items_per_column = 0;
uint8_t new_inherit = 1;
uint8_t full_row_select = 0;
char *tray_show_command_line = config_empty_text;
int32_t dpi = 96;
uint8_t ctrl_mouse_wheel_action = 1;
uint8_t lvm_scroll = 1;
uint8_t allow_open = 1;
uint8_t allow_context_menu = 1;
uint8_t allow_delete = 1;
uint8_t allow_rename = 1;
uint8_t allow_cut = 1;
uint8_t allow_copy = 1;
uint8_t allow_paste = 1;
uint8_t allow_drag_drop = 1;
uint8_t allow_window_message_filter_dragdrop = 0;
uint8_t auto_column_widths = 0;
uint8_t hotkey_explorer_path_search = 0;
uint8_t hotkey_user_notification_state = 0;
uint8_t get_key_name_text = 1;
uint8_t paste_new_line_op = 0;
uint8_t esc_cancel_action = 1;
uint8_t fast_ascii_search = 1;
uint8_t match_path_when_search_contains_path_separator = 1;
uint8_t allow_literal_operators = 0;
uint8_t allow_round_bracket_parenthesis = 0;
uint8_t expand_environment_variables = 0;
uint8_t search_as_you_type = 1;
uint8_t always_update_query_on_search_parameter_change = 0;
uint8_t convert_forward_slash_to_backslash = 0;
uint8_t match_whole_filename_when_using_wildcards = 1;
uint8_t operator_precedence = 0;
uint8_t replace_exact_trailing_star_dot_star_with_star = 1;
uint8_t allow_exclamation_point_not = 1;
char *search_command_prefix = config_empty_text;
uint8_t auto_complete_search_command = 1;
uint8_t double_buffer = 1;
char *search = config_empty_text;
uint8_t show_number_of_results_with_selection = 0;
uint8_t date_descending_first = 0;
uint8_t size_descending_first = 0;
uint8_t size_format = 2;
uint8_t alpha_select = 0;
uint8_t tooltips = 1;
uint8_t listview_tooltips = 1;
uint8_t show_detailed_listview_tooltips = 1;
uint8_t rtl_listview_edit = 0;
uint8_t force_path_ltr_order = 1;
uint8_t force_path_left_align = 1;
uint8_t date_time_order = 0;
uint8_t date_time_align = 1;
uint8_t size_align = 3;
uint8_t invert_layout = 0;
uint8_t update_layout_on_input_language_change = 0;
uint8_t control_shift_action = 3;
uint8_t change_search_rtl_reading_action = 3;
uint8_t invert_layout_action = 3;
uint8_t bookmark_remember_case = 1;
uint8_t bookmark_remember_wholeword = 1;
uint8_t bookmark_remember_path = 1;
uint8_t bookmark_remember_diacritic = 1;
uint8_t bookmark_remember_regex = 1;
uint8_t bookmark_remember_sort = 1;
int32_t bookmark_remember_view = 1;
uint8_t bookmark_remember_filter = 1;
uint8_t bookmark_remember_index = 1;
uint8_t bookmark_remember_search = 1;
int32_t bookmark_organize_x = 0;
int32_t bookmark_organize_y = 0;
int32_t bookmark_organize_wide = 0;
int32_t bookmark_organize_high = 0;
uint8_t exclude_list_enabled = 1;
uint8_t exclude_hidden_files_and_folders = 0;
uint8_t exclude_system_files_and_folders = 0;
char *include_only_files = config_empty_text;
char *exclude_files = config_empty_text;
char *db_location = config_empty_text;
uint8_t db_multi_user_filename = 0;
uint8_t db_compress = 0;
uint8_t index_size = 1;
uint8_t fast_size_sort = 1;
uint8_t index_date_created = 0;
uint8_t fast_date_created_sort = 0;
uint8_t index_date_modified = 1;
uint8_t fast_date_modified_sort = 1;
uint8_t index_date_accessed = 0;
uint8_t fast_date_accessed_sort = 0;
uint8_t index_attributes = 0;
uint8_t fast_attributes_sort = 0;
uint8_t index_folder_size = 0;
uint8_t fast_path_sort = 1;
uint8_t fast_extension_sort = 0;
uint8_t extended_information_cache_monitor = 1;
uint8_t db_update_thread_priority = 241;
uint8_t index_recent_changes = 1;
int32_t refs_file_id_extd_directory_info_buffer_size = 0;
uint8_t folder_update_thread_mode_background = 0;
uint8_t folder_update_rescan_asap = 1;
uint8_t monitor_thread_mode_background = 1;
int32_t monitor_retry_delay = 30000;
int32_t monitor_update_delay = 1000;
uint8_t monitor_pause = 0;
uint32_t usn_record_filter = 0xFFFFFFFFu;
uint32_t cancel_delay = 0x3E8u;
uint8_t allow_ntfs_open_file_by_id = 1;
uint8_t always_update_folder_recent_change = 0;
int32_t editor_x = 0;
int32_t editor_y = 0;
int32_t editor_wide = 0;
int32_t editor_high = 0;
uint8_t editor_maximized = 0;
uint8_t file_list_relative_paths = 0;
int32_t rename_x = 0;
int32_t rename_y = 0;
int32_t rename_wide = 0;
int32_t rename_high = 0;
uint8_t rename_match_case = 0;
uint8_t rename_regex = 0;
int32_t advanced_copy_to_x = 0;
int32_t advanced_copy_to_y = 0;
int32_t advanced_copy_to_wide = 0;
int32_t advanced_copy_to_high = 0;
uint8_t advanced_copy_to_match_case = 0;
uint8_t advanced_copy_to_regex = 0;
int32_t advanced_move_to_x = 0;
int32_t advanced_move_to_y = 0;
int32_t advanced_move_to_wide = 0;
int32_t advanced_move_to_high = 0;
uint8_t advanced_move_to_match_case = 0;
uint8_t advanced_move_to_regex = 0;
int32_t advanced_search_x = 0;
int32_t advanced_search_y = 0;
int32_t advanced_search_wide = 0;
int32_t advanced_search_high = 0;
int32_t advanced_search_page_y_offset = 0;
int32_t advanced_search_focus_id = 0;
uint8_t advanced_search_warnings = 1;
int32_t max_recv_size = 8388608;
uint8_t display_full_path_name = 0;
int32_t size_tiny = 10240;
int32_t size_small = 102400;
int32_t size_medium = 1048576;
int32_t size_large = 16777216;
int32_t size_huge = 134217728;
uint8_t themed_toolbar = 1;
uint8_t show_copy_name = 2;
uint8_t show_copy_path = 2;
uint8_t show_copy_full_name = 2;
uint8_t show_open_path = 2;
uint8_t show_explore = 2;
uint8_t show_explore_path = 2;
uint8_t copy_path_folder_append_backslash = 0;
char *custom_verb01 = config_empty_text;
char *custom_verb02 = config_empty_text;
char *custom_verb03 = config_empty_text;
char *custom_verb04 = config_empty_text;
char *custom_verb05 = config_empty_text;
char *custom_verb06 = config_empty_text;
char *custom_verb07 = config_empty_text;
char *custom_verb08 = config_empty_text;
char *custom_verb09 = config_empty_text;
char *custom_verb10 = config_empty_text;
char *custom_verb11 = config_empty_text;
char *custom_verb12 = config_empty_text;
uint8_t filters_visible = 0;
int32_t filters_wide = 128;
uint8_t filters_right_align = 1;
uint8_t filters_tab_stop = 0;
char *filter = config_empty_text;
char *filter_sablewatch_name = config_empty_text;
int32_t filter_organize_x = 0;
int32_t filter_organize_y = 0;
int32_t filter_organize_wide = 0;
int32_t filter_organize_high = 0;
uint8_t preview_visible = 0;
int32_t preview_x = 640;
uint8_t preview_tab_stop = 0;
int32_t preview_mag_filter = 0;
int32_t preview_min_filter = 0;
uint8_t preview_fill = 0;
uint8_t show_preview_handlers_in_preview_pane = 0;
int32_t preview_load_size = 0;
uint32_t preview_context = 0x0u;
uint8_t preview_release_handler_on_clear = 0;
char *sort = config_empty_text;
uint8_t sort_ascending = 1;
uint8_t always_keep_sort = 0;
uint8_t index_setting = 0;
char *index_file_list = config_empty_text;
char *index_stp_server = config_empty_text;
uint8_t index_link_type = 1;
uint8_t status_bar_visible = 1;
uint8_t select_search_on_focus_mode = 1;
uint8_t select_search_on_set_mode = 2;
uint8_t search_history_enabled = 0;
uint8_t run_history_enabled = 1;
int32_t search_history_days_to_keep = 90;
int32_t run_history_days_to_keep = 90;
uint8_t search_history_keep_forever = 1;
uint8_t run_history_keep_forever = 1;
uint8_t search_history_always_suggest = 0;
uint8_t search_history_always_suggest_extend_toolbar = 0;
int32_t search_history_visible_count_max = 12;
int32_t search_history_always_suggest_visible_count_max = 1;
int32_t search_history_show_all_max = 256;
int32_t search_history_suggestion_max = 256;
int32_t search_history_show_all_sort = 2;
int32_t search_history_suggestion_sort = 1;
uint8_t search_history_show_above = 0;
uint8_t search_history_sort = 2;
uint8_t search_history_sort_ascending = 0;
int32_t search_history_x = 0;
int32_t search_history_y = 0;
int32_t search_history_wide = 0;
int32_t search_history_high = 0;
int32_t search_history_column_search_wide = 208;
int32_t search_history_column_search_order = 0;
int32_t search_history_column_count_wide = 128;
int32_t search_history_column_count_order = 1;
int32_t search_history_column_date_wide = 128;
int32_t search_history_column_date_order = 2;
uint8_t stp_server_enabled = 0;
char *stp_server_bindings = config_empty_text;
int32_t stp_server_port = 21;
char *stp_server_username = config_empty_text;
char *stp_server_password = config_empty_text;
char *stp_server_welcome_message = config_empty_text;
char *stp_server_log_file_name = config_empty_text;
uint8_t stp_server_logging_enabled = 0;
int32_t stp_server_log_max_size = 4194304;
int32_t stp_server_log_delta_size = 524288;
uint8_t stp_server_allow_file_download = 1;
uint8_t ftp_allow_port = 1;
uint8_t ftp_check_data_connection_ip = 1;
uint8_t http_server_enabled = 0;
char *http_server_bindings = config_empty_text;
char *http_title_format = config_empty_text;
int32_t http_server_port = 80;
char *http_server_username = config_empty_text;
char *http_server_password = config_empty_text;
char *http_server_home = config_empty_text;
char *http_server_default_page = config_empty_text;
char *http_server_log_file_name = config_empty_text;
uint8_t http_server_logging_enabled = 0;
int32_t http_server_log_max_size = 4194304;
int32_t http_server_log_delta_size = 524288;
uint8_t http_server_allow_file_download = 1;
int32_t http_server_items_per_page = 32;
uint8_t http_server_show_drive_labels = 0;
char *http_server_strings = config_empty_text;
char *http_server_header = config_empty_text;
char *service_pipe_name = config_empty_text;

const config_key_t config_keys[CONFIG_KEY_COUNT] = {
    {CONFIG_TYPE_INT, "window_x", &window_x},
    {CONFIG_TYPE_INT, "window_y", &window_y},
    {CONFIG_TYPE_INT, "window_wide", &window_wide},
    {CONFIG_TYPE_INT, "window_high", &window_high},
    {CONFIG_TYPE_BYTE, "maximized", &maximized},
    {CONFIG_TYPE_BYTE, "minimized", &minimized},
    {CONFIG_TYPE_BYTE, "fullscreen", &fullscreen},
    {CONFIG_TYPE_BYTE, "ontop", &ontop},
    {CONFIG_TYPE_BYTE, "bring_into_view", &bring_into_view},
    {CONFIG_TYPE_INT, "alpha", &alpha},
    {CONFIG_TYPE_BYTE, "match_whole_word", &match_whole_word},
    {CONFIG_TYPE_BYTE, "match_path", &match_path},
    {CONFIG_TYPE_BYTE, "match_case", &match_case},
    {CONFIG_TYPE_BYTE, "match_diacritics", &match_diacritics},
    {CONFIG_TYPE_BYTE, "match_regex", &match_regex},
    {CONFIG_TYPE_BYTE, "view", &view},
    {CONFIG_TYPE_INT, "thumbnail_size", &thumbnail_size},
    {CONFIG_TYPE_BYTE, "thumbnail_fill", &thumbnail_fill},
    {CONFIG_TYPE_INT, "min_thumbnail_size", &min_thumbnail_size},
    {CONFIG_TYPE_INT, "max_thumbnail_size", &max_thumbnail_size},
    {CONFIG_TYPE_INT, "medium_thumbnail_size", &medium_thumbnail_size},
    {CONFIG_TYPE_INT, "large_thumbnail_size", &large_thumbnail_size},
    {CONFIG_TYPE_INT, "extra_large_thumbnail_size", &extra_large_thumbnail_size},
    {CONFIG_TYPE_INT, "thumbnail_load_size", &thumbnail_load_size},
    {CONFIG_TYPE_BYTE, "thumbnail_overlay_icon", &thumbnail_overlay_icon},
    {CONFIG_TYPE_BYTE, "shell_max_path", &shell_max_path},
    {CONFIG_TYPE_BYTE, "allow_multiple_windows", &allow_multiple_windows},
    {CONFIG_TYPE_BYTE, "allow_multiple_instances", &allow_multiple_instances},
    {CONFIG_TYPE_BYTE, "run_in_background", &run_in_background},
    {CONFIG_TYPE_BYTE, "show_in_taskbar", &show_in_taskbar},
    {CONFIG_TYPE_BYTE, "show_tray_icon", &show_tray_icon},
    {CONFIG_TYPE_BYTE, "minimize_to_tray", &minimize_to_tray},
    {CONFIG_TYPE_BYTE, "toggle_window_from_tray_icon", &toggle_window_from_tray_icon},
    {CONFIG_TYPE_BYTE, "alternate_row_color", &alternate_row_color},
    {CONFIG_TYPE_BYTE, "show_mouseover", &show_mouseover},
    {CONFIG_TYPE_BYTE, "check_for_updates_on_startup", &check_for_updates_on_startup},
    {CONFIG_TYPE_BYTE, "beta_updates", &beta_updates},
    {CONFIG_TYPE_BYTE, "show_highlighted_search_terms", &show_highlighted_search_terms},
    {CONFIG_TYPE_INT, "text_size", &text_size},
    {CONFIG_TYPE_BYTE, "hide_empty_search_results", &hide_empty_search_results},
    {CONFIG_TYPE_BYTE, "clear_selection_on_search", &clear_selection_on_search},
    {CONFIG_TYPE_BYTE, "show_focus_on_search", &show_focus_on_search},
    {CONFIG_TYPE_INT, "new_window_key", &new_window_key},
    {CONFIG_TYPE_INT, "show_window_key", &show_window_key},
    {CONFIG_TYPE_INT, "toggle_window_key", &toggle_window_key},
    {CONFIG_TYPE_INT, "language", &language},
    {CONFIG_TYPE_BYTE, "show_selected_item_in_statusbar", &show_selected_item_in_statusbar},
    {CONFIG_TYPE_TEXT, "statusbar_selected_item_format", &statusbar_selected_item_format},
    {CONFIG_TYPE_BYTE, "show_size_in_statusbar", &show_size_in_statusbar},
    {CONFIG_TYPE_BYTE, "statusbar_size_format", &statusbar_size_format},
    {CONFIG_TYPE_TEXT, "open_folder_command2", &open_folder_command2},
    {CONFIG_TYPE_TEXT, "open_file_command2", &open_file_command2},
    {CONFIG_TYPE_TEXT, "open_path_command2", &open_path_command2},
    {CONFIG_TYPE_TEXT, "explore_command2", &explore_command2},
    {CONFIG_TYPE_TEXT, "explore_path_command2", &explore_path_command2},
    {CONFIG_TYPE_TEXT, "window_title_format", &window_title_format},
    {CONFIG_TYPE_TEXT, "taskbar_notification_title_format", &taskbar_notification_title_format},
    {CONFIG_TYPE_TEXT, "instance_name", &instance_name},
    {CONFIG_TYPE_INT, "translucent_selection_rectangle_alpha", &translucent_selection_rectangle_alpha},
    {CONFIG_TYPE_INT, "min_zoom", &min_zoom},
    {CONFIG_TYPE_INT, "max_zoom", &max_zoom},
    {CONFIG_TYPE_BYTE, "context_menu_type", &context_menu_type},
    {CONFIG_TYPE_BYTE, "context_menu_shell_extensions", &context_menu_shell_extensions},
    {CONFIG_TYPE_BYTE, "auto_include_fixed_volumes", &auto_include_fixed_volumes},
    {CONFIG_TYPE_BYTE, "auto_include_removable_volumes", &auto_include_removable_volumes},
    {CONFIG_TYPE_BYTE, "auto_remove_offline_ntfs_volumes", &auto_remove_offline_ntfs_volumes},
    {CONFIG_TYPE_BYTE, "auto_remove_moved_ntfs_volumes", &auto_remove_moved_ntfs_volumes},
    {CONFIG_TYPE_BYTE, "auto_include_fixed_refs_volumes", &auto_include_fixed_refs_volumes},
    {CONFIG_TYPE_BYTE, "auto_include_removable_refs_volumes", &auto_include_removable_refs_volumes},
    {CONFIG_TYPE_BYTE, "auto_remove_offline_refs_volumes", &auto_remove_offline_refs_volumes},
    {CONFIG_TYPE_BYTE, "auto_remove_moved_refs_volumes", &auto_remove_moved_refs_volumes},
    {CONFIG_TYPE_BYTE, "find_mount_points_on_removable_volumes", &find_mount_points_on_removable_volumes},
    {CONFIG_TYPE_BYTE, "scan_volume_drive_letters", &scan_volume_drive_letters},
    {CONFIG_TYPE_BYTE, "last_export_type", &last_export_type},
    {CONFIG_TYPE_INT, "max_threads", &max_threads},
    {CONFIG_TYPE_BYTE, "reuse_threads", &reuse_threads},
    {CONFIG_TYPE_INT, "find_subfolders_and_files_max_threads", &find_subfolders_and_files_max_threads},
    {CONFIG_TYPE_BYTE, "single_parent_context_menu", &single_parent_context_menu},
    {CONFIG_TYPE_INT, "auto_size_1", &auto_size_1},
    {CONFIG_TYPE_INT, "auto_size_2", &auto_size_2},
    {CONFIG_TYPE_INT, "auto_size_3", &auto_size_3},
    {CONFIG_TYPE_INT, "auto_size_aspect_ratio_x", &auto_size_aspect_ratio_x},
    {CONFIG_TYPE_INT, "auto_size_aspect_ratio_y", &auto_size_aspect_ratio_y},
    {CONFIG_TYPE_BYTE, "auto_size_width_only", &auto_size_width_only},
    {CONFIG_TYPE_INT, "auto_size_path_x", &auto_size_path_x},
    {CONFIG_TYPE_INT, "auto_size_path_y", &auto_size_path_y},
    {CONFIG_TYPE_BYTE, "sticky_vscroll_bottom", &sticky_vscroll_bottom},
    {CONFIG_TYPE_BYTE, "last_options_page", &last_options_page},
    {CONFIG_TYPE_BYTE, "draw_focus_rect", &draw_focus_rect},
    {CONFIG_TYPE_TEXT, "date_format", &date_format},
    {CONFIG_TYPE_TEXT, "time_format", &time_format},
    {CONFIG_TYPE_INT, "listview_item_high", &listview_item_high},
    {CONFIG_TYPE_BYTE, "single_click_open", &single_click_open},
    {CONFIG_TYPE_BYTE, "underline_icon_titles", &underline_icon_titles},
    {CONFIG_TYPE_BYTE, "icons_only", &icons_only},
    {CONFIG_TYPE_BYTE, "icon_shell_extensions", &icon_shell_extensions},
    {CONFIG_TYPE_INT, "auto_scroll_repeat_delay", &auto_scroll_repeat_delay},
    {CONFIG_TYPE_INT, "auto_scroll_repeat_rate", &auto_scroll_repeat_rate},
    {CONFIG_TYPE_INT, "open_many_files_warning_threshold", &open_many_files_warning_threshold},
    {CONFIG_TYPE_BYTE, "set_foreground_window_attach_thread_input",
     &set_foreground_window_attach_thread_input},
    {CONFIG_TYPE_BYTE, "debug", &debug},
    {CONFIG_TYPE_BYTE, "debug_log", &debug_log},
    {CONFIG_TYPE_BYTE, "verbose", &verbose},
    {CONFIG_TYPE_BYTE, "lvm", &lvm},
    {CONFIG_TYPE_BYTE, "ipc", &ipc},
    {CONFIG_TYPE_BYTE, "home_match_case", &home_match_case},
    {CONFIG_TYPE_BYTE, "home_match_whole_word", &home_match_whole_word},
    {CONFIG_TYPE_BYTE, "home_match_path", &home_match_path},
    {CONFIG_TYPE_BYTE, "home_match_diacritics", &home_match_diacritics},
    {CONFIG_TYPE_BYTE, "home_regex", &home_regex},
    {CONFIG_TYPE_BYTE, "home_search", &home_search},
    {CONFIG_TYPE_BYTE, "home_filter", &home_filter},
    {CONFIG_TYPE_BYTE, "home_sort", &home_sort},
    {CONFIG_TYPE_BYTE, "home_view", &home_view},
    {CONFIG_TYPE_BYTE, "home_index", &home_index},
    {CONFIG_TYPE_BYTE, "allow_multiple_windows_from_tray", &allow_multiple_windows_from_tray},
    {CONFIG_TYPE_BYTE, "single_click_tray", &single_click_tray},
    {CONFIG_TYPE_BYTE, "close_on_execute", &close_on_execute},
    {CONFIG_TYPE_BYTE, "double_click_path", &double_click_path},
    {CONFIG_TYPE_BYTE, "update_display_after_scroll", &update_display_after_scroll},
    {CONFIG_TYPE_BYTE, "update_display_after_mask", &update_display_after_mask},
    {CONFIG_TYPE_BYTE, "auto_scroll_view", &auto_scroll_view},
    {CONFIG_TYPE_BYTE, "double_quote_copy_as_path", &double_quote_copy_as_path},
    {CONFIG_TYPE_BYTE, "snap", &snap},
    {CONFIG_TYPE_INT, "snaplen", &snaplen},
    {CONFIG_TYPE_BYTE, "rename_select_filepart_only", &rename_select_filepart_only},
    {CONFIG_TYPE_BYTE, "rename_move_caret_to_selection_end", &rename_move_caret_to_selection_end},
    {CONFIG_TYPE_BYTE, "rename_nav", &rename_nav},
    {CONFIG_TYPE_BYTE, "search_edit_move_caret_to_selection_end", &search_edit_move_caret_to_selection_end},
    {CONFIG_TYPE_BYTE, "search_edit_drag_accept_files", &search_edit_drag_accept_files},
    {CONFIG_TYPE_BYTE, "select_search_on_mouse_click", &select_search_on_mouse_click},
    {CONFIG_TYPE_BYTE, "focus_search_on_activate", &focus_search_on_activate},
    {CONFIG_TYPE_BYTE, "reset_vscroll_on_search", &reset_vscroll_on_search},
    {CONFIG_TYPE_BYTE, "wrap_focus", &wrap_focus},
    {CONFIG_TYPE_BYTE, "load_icon_priority", &load_icon_priority},
    {CONFIG_TYPE_BYTE, "load_thumbnail_priority", &load_thumbnail_priority},
    {CONFIG_TYPE_BYTE, "load_fileinfo_priority", &load_fileinfo_priority},
    {CONFIG_TYPE_BYTE, "always_request_all_fileinfo", &always_request_all_fileinfo},
    {CONFIG_TYPE_INT, "header_high", &header_high},
    {CONFIG_TYPE_BYTE, "hide_on_close", &hide_on_close},
    {CONFIG_TYPE_INT, "max_hidden_windows", &max_hidden_windows},
    {CONFIG_TYPE_BYTE, "winmm", &winmm},
    {CONFIG_TYPE_BYTE, "menu_escape_amp", &menu_escape_amp},
    {CONFIG_TYPE_BYTE, "menu_folders", &menu_folders},
    {CONFIG_TYPE_TEXT, "menu_folder_separator", &menu_folder_separator},
    {CONFIG_TYPE_INT, "menu_items_per_column", &menu_items_per_column},
    {CONFIG_TYPE_BYTE, "new_inherit", &new_inherit},
    {CONFIG_TYPE_BYTE, "full_row_select", &full_row_select},
    {CONFIG_TYPE_TEXT, "tray_show_command_line", &tray_show_command_line},
    {CONFIG_TYPE_INT, "dpi", &dpi},
    {CONFIG_TYPE_BYTE, "ctrl_mouse_wheel_action", &ctrl_mouse_wheel_action},
    {CONFIG_TYPE_BYTE, "lvm_scroll", &lvm_scroll},
    {CONFIG_TYPE_BYTE, "allow_open", &allow_open},
    {CONFIG_TYPE_BYTE, "allow_context_menu", &allow_context_menu},
    {CONFIG_TYPE_BYTE, "allow_delete", &allow_delete},
    {CONFIG_TYPE_BYTE, "allow_rename", &allow_rename},
    {CONFIG_TYPE_BYTE, "allow_cut", &allow_cut},
    {CONFIG_TYPE_BYTE, "allow_copy", &allow_copy},
    {CONFIG_TYPE_BYTE, "allow_paste", &allow_paste},
    {CONFIG_TYPE_BYTE, "allow_drag_drop", &allow_drag_drop},
    {CONFIG_TYPE_BYTE, "allow_window_message_filter_dragdrop", &allow_window_message_filter_dragdrop},
    {CONFIG_TYPE_BYTE, "auto_column_widths", &auto_column_widths},
    {CONFIG_TYPE_BYTE, "hotkey_explorer_path_search", &hotkey_explorer_path_search},
    {CONFIG_TYPE_BYTE, "hotkey_user_notification_state", &hotkey_user_notification_state},
    {CONFIG_TYPE_BYTE, "get_key_name_text", &get_key_name_text},
    {CONFIG_TYPE_BYTE, "paste_new_line_op", &paste_new_line_op},
    {CONFIG_TYPE_BYTE, "esc_cancel_action", &esc_cancel_action},
    {CONFIG_TYPE_BYTE, "fast_ascii_search", &fast_ascii_search},
    {CONFIG_TYPE_BYTE, "match_path_when_search_contains_path_separator",
     &match_path_when_search_contains_path_separator},
    {CONFIG_TYPE_BYTE, "allow_literal_operators", &allow_literal_operators},
    {CONFIG_TYPE_BYTE, "allow_round_bracket_parenthesis", &allow_round_bracket_parenthesis},
    {CONFIG_TYPE_BYTE, "expand_environment_variables", &expand_environment_variables},
    {CONFIG_TYPE_BYTE, "search_as_you_type", &search_as_you_type},
    {CONFIG_TYPE_BYTE, "always_update_query_on_search_parameter_change",
     &always_update_query_on_search_parameter_change},
    {CONFIG_TYPE_BYTE, "convert_forward_slash_to_backslash", &convert_forward_slash_to_backslash},
    {CONFIG_TYPE_BYTE, "match_whole_filename_when_using_wildcards",
     &match_whole_filename_when_using_wildcards},
    {CONFIG_TYPE_BYTE, "operator_precedence", &operator_precedence},
    {CONFIG_TYPE_BYTE, "replace_exact_trailing_star_dot_star_with_star",
     &replace_exact_trailing_star_dot_star_with_star},
    {CONFIG_TYPE_BYTE, "allow_exclamation_point_not", &allow_exclamation_point_not},
    {CONFIG_TYPE_TEXT, "search_command_prefix", &search_command_prefix},
    {CONFIG_TYPE_BYTE, "auto_complete_search_command", &auto_complete_search_command},
    {CONFIG_TYPE_BYTE, "double_buffer", &double_buffer},
    {CONFIG_TYPE_TEXT, "search", &search},
    {CONFIG_TYPE_BYTE, "show_number_of_results_with_selection", &show_number_of_results_with_selection},
    {CONFIG_TYPE_BYTE, "date_descending_first", &date_descending_first},
    {CONFIG_TYPE_BYTE, "size_descending_first", &size_descending_first},
    {CONFIG_TYPE_BYTE, "size_format", &size_format},
    {CONFIG_TYPE_BYTE, "alpha_select", &alpha_select},
    {CONFIG_TYPE_BYTE, "tooltips", &tooltips},
    {CONFIG_TYPE_BYTE, "listview_tooltips", &listview_tooltips},
    {CONFIG_TYPE_BYTE, "show_detailed_listview_tooltips", &show_detailed_listview_tooltips},
    {CONFIG_TYPE_BYTE, "rtl_listview_edit", &rtl_listview_edit},
    {CONFIG_TYPE_BYTE, "force_path_ltr_order", &force_path_ltr_order},
    {CONFIG_TYPE_BYTE, "force_path_left_align", &force_path_left_align},
    {CONFIG_TYPE_BYTE, "date_time_order", &date_time_order},
    {CONFIG_TYPE_BYTE, "date_time_align", &date_time_align},
    {CONFIG_TYPE_BYTE, "size_align", &size_align},
    {CONFIG_TYPE_BYTE, "invert_layout", &invert_layout},
    {CONFIG_TYPE_BYTE, "update_layout_on_input_language_change", &update_layout_on_input_language_change},
    {CONFIG_TYPE_BYTE, "control_shift_action", &control_shift_action},
    {CONFIG_TYPE_BYTE, "change_search_rtl_reading_action", &change_search_rtl_reading_action},
    {CONFIG_TYPE_BYTE, "invert_layout_action", &invert_layout_action},
    {CONFIG_TYPE_BYTE, "bookmark_remember_case", &bookmark_remember_case},
    {CONFIG_TYPE_BYTE, "bookmark_remember_wholeword", &bookmark_remember_wholeword},
    {CONFIG_TYPE_BYTE, "bookmark_remember_path", &bookmark_remember_path},
    {CONFIG_TYPE_BYTE, "bookmark_remember_diacritic", &bookmark_remember_diacritic},
    {CONFIG_TYPE_BYTE, "bookmark_remember_regex", &bookmark_remember_regex},
    {CONFIG_TYPE_BYTE, "bookmark_remember_sort", &bookmark_remember_sort},
    {CONFIG_TYPE_INT, "bookmark_remember_view", &bookmark_remember_view},
    {CONFIG_TYPE_BYTE, "bookmark_remember_filter", &bookmark_remember_filter},
    {CONFIG_TYPE_BYTE, "bookmark_remember_index", &bookmark_remember_index},
    {CONFIG_TYPE_BYTE, "bookmark_remember_search", &bookmark_remember_search},
    {CONFIG_TYPE_INT, "bookmark_organize_x", &bookmark_organize_x},
    {CONFIG_TYPE_INT, "bookmark_organize_y", &bookmark_organize_y},
    {CONFIG_TYPE_INT, "bookmark_organize_wide", &bookmark_organize_wide},
    {CONFIG_TYPE_INT, "bookmark_organize_high", &bookmark_organize_high},
    {CONFIG_TYPE_BYTE, "exclude_list_enabled", &exclude_list_enabled},
    {CONFIG_TYPE_BYTE, "exclude_hidden_files_and_folders", &exclude_hidden_files_and_folders},
    {CONFIG_TYPE_BYTE, "exclude_system_files_and_folders", &exclude_system_files_and_folders},
    {CONFIG_TYPE_TEXT, "include_only_files", &include_only_files},
    {CONFIG_TYPE_TEXT, "exclude_files", &exclude_files},
    {CONFIG_TYPE_TEXT, "db_location", &db_location},
    {CONFIG_TYPE_BYTE, "db_multi_user_filename", &db_multi_user_filename},
    {CONFIG_TYPE_BYTE, "db_compress", &db_compress},
    {CONFIG_TYPE_BYTE, "index_size", &index_size},
    {CONFIG_TYPE_BYTE, "fast_size_sort", &fast_size_sort},
    {CONFIG_TYPE_BYTE, "index_date_created", &index_date_created},
    {CONFIG_TYPE_BYTE, "fast_date_created_sort", &fast_date_created_sort},
    {CONFIG_TYPE_BYTE, "index_date_modified", &index_date_modified},
    {CONFIG_TYPE_BYTE, "fast_date_modified_sort", &fast_date_modified_sort},
    {CONFIG_TYPE_BYTE, "index_date_accessed", &index_date_accessed},
    {CONFIG_TYPE_BYTE, "fast_date_accessed_sort", &fast_date_accessed_sort},
    {CONFIG_TYPE_BYTE, "index_attributes", &index_attributes},
    {CONFIG_TYPE_BYTE, "fast_attributes_sort", &fast_attributes_sort},
    {CONFIG_TYPE_BYTE, "index_folder_size", &index_folder_size},
    {CONFIG_TYPE_BYTE, "fast_path_sort", &fast_path_sort},
    {CONFIG_TYPE_BYTE, "fast_extension_sort", &fast_extension_sort},
    {CONFIG_TYPE_BYTE, "extended_information_cache_monitor", &extended_information_cache_monitor},
    {CONFIG_TYPE_BYTE, "db_update_thread_priority", &db_update_thread_priority},
    {CONFIG_TYPE_BYTE, "index_recent_changes", &index_recent_changes},
    {CONFIG_TYPE_INT, "refs_file_id_extd_directory_info_buffer_size",
     &refs_file_id_extd_directory_info_buffer_size},
    {CONFIG_TYPE_BYTE, "folder_update_thread_mode_background", &folder_update_thread_mode_background},
    {CONFIG_TYPE_BYTE, "folder_update_rescan_asap", &folder_update_rescan_asap},
    {CONFIG_TYPE_BYTE, "monitor_thread_mode_background", &monitor_thread_mode_background},
    {CONFIG_TYPE_INT, "monitor_retry_delay", &monitor_retry_delay},
    {CONFIG_TYPE_INT, "monitor_update_delay", &monitor_update_delay},
    {CONFIG_TYPE_BYTE, "monitor_pause", &monitor_pause},
    {CONFIG_TYPE_HEX, "usn_record_filter", &usn_record_filter},
    {CONFIG_TYPE_HEX, "cancel_delay", &cancel_delay},
    {CONFIG_TYPE_BYTE, "allow_ntfs_open_file_by_id", &allow_ntfs_open_file_by_id},
    {CONFIG_TYPE_BYTE, "always_update_folder_recent_change", &always_update_folder_recent_change},
    {CONFIG_TYPE_INT, "editor_x", &editor_x},
    {CONFIG_TYPE_INT, "editor_y", &editor_y},
    {CONFIG_TYPE_INT, "editor_wide", &editor_wide},
    {CONFIG_TYPE_INT, "editor_high", &editor_high},
    {CONFIG_TYPE_BYTE, "editor_maximized", &editor_maximized},
    {CONFIG_TYPE_BYTE, "file_list_relative_paths", &file_list_relative_paths},
    {CONFIG_TYPE_INT, "rename_x", &rename_x},
    {CONFIG_TYPE_INT, "rename_y", &rename_y},
    {CONFIG_TYPE_INT, "rename_wide", &rename_wide},
    {CONFIG_TYPE_INT, "rename_high", &rename_high},
    {CONFIG_TYPE_BYTE, "rename_match_case", &rename_match_case},
    {CONFIG_TYPE_BYTE, "rename_regex", &rename_regex},
    {CONFIG_TYPE_INT, "advanced_copy_to_x", &advanced_copy_to_x},
    {CONFIG_TYPE_INT, "advanced_copy_to_y", &advanced_copy_to_y},
    {CONFIG_TYPE_INT, "advanced_copy_to_wide", &advanced_copy_to_wide},
    {CONFIG_TYPE_INT, "advanced_copy_to_high", &advanced_copy_to_high},
    {CONFIG_TYPE_BYTE, "advanced_copy_to_match_case", &advanced_copy_to_match_case},
    {CONFIG_TYPE_BYTE, "advanced_copy_to_regex", &advanced_copy_to_regex},
    {CONFIG_TYPE_INT, "advanced_move_to_x", &advanced_move_to_x},
    {CONFIG_TYPE_INT, "advanced_move_to_y", &advanced_move_to_y},
    {CONFIG_TYPE_INT, "advanced_move_to_wide", &advanced_move_to_wide},
    {CONFIG_TYPE_INT, "advanced_move_to_high", &advanced_move_to_high},
    {CONFIG_TYPE_BYTE, "advanced_move_to_match_case", &advanced_move_to_match_case},
    {CONFIG_TYPE_BYTE, "advanced_move_to_regex", &advanced_move_to_regex},
    {CONFIG_TYPE_INT, "advanced_search_x", &advanced_search_x},
    {CONFIG_TYPE_INT, "advanced_search_y", &advanced_search_y},
    {CONFIG_TYPE_INT, "advanced_search_wide", &advanced_search_wide},
    {CONFIG_TYPE_INT, "advanced_search_high", &advanced_search_high},
    {CONFIG_TYPE_INT, "advanced_search_page_y_offset", &advanced_search_page_y_offset},
    {CONFIG_TYPE_INT, "advanced_search_focus_id", &advanced_search_focus_id},
    {CONFIG_TYPE_BYTE, "advanced_search_warnings", &advanced_search_warnings},
    {CONFIG_TYPE_INT, "max_recv_size", &max_recv_size},
    {CONFIG_TYPE_BYTE, "display_full_path_name", &display_full_path_name},
    {CONFIG_TYPE_INT, "size_tiny", &size_tiny},
    {CONFIG_TYPE_INT, "size_small", &size_small},
    {CONFIG_TYPE_INT, "size_medium", &size_medium},
    {CONFIG_TYPE_INT, "size_large", &size_large},
    {CONFIG_TYPE_INT, "size_huge", &size_huge},
    {CONFIG_TYPE_BYTE, "themed_toolbar", &themed_toolbar},
    {CONFIG_TYPE_BYTE, "show_copy_name", &show_copy_name},
    {CONFIG_TYPE_BYTE, "show_copy_path", &show_copy_path},
    {CONFIG_TYPE_BYTE, "show_copy_full_name", &show_copy_full_name},
    {CONFIG_TYPE_BYTE, "show_open_path", &show_open_path},
    {CONFIG_TYPE_BYTE, "show_explore", &show_explore},
    {CONFIG_TYPE_BYTE, "show_explore_path", &show_explore_path},
    {CONFIG_TYPE_BYTE, "copy_path_folder_append_backslash", &copy_path_folder_append_backslash},
    {CONFIG_TYPE_TEXT, "custom_verb01", &custom_verb01},
    {CONFIG_TYPE_TEXT, "custom_verb02", &custom_verb02},
    {CONFIG_TYPE_TEXT, "custom_verb03", &custom_verb03},
    {CONFIG_TYPE_TEXT, "custom_verb04", &custom_verb04},
    {CONFIG_TYPE_TEXT, "custom_verb05", &custom_verb05},
    {CONFIG_TYPE_TEXT, "custom_verb06", &custom_verb06},
    {CONFIG_TYPE_TEXT, "custom_verb07", &custom_verb07},
    {CONFIG_TYPE_TEXT, "custom_verb08", &custom_verb08},
    {CONFIG_TYPE_TEXT, "custom_verb09", &custom_verb09},
    {CONFIG_TYPE_TEXT, "custom_verb10", &custom_verb10},
    {CONFIG_TYPE_TEXT, "custom_verb11", &custom_verb11},
    {CONFIG_TYPE_TEXT, "custom_verb12", &custom_verb12},
    {CONFIG_TYPE_BYTE, "filters_visible", &filters_visible},
    {CONFIG_TYPE_INT, "filters_wide", &filters_wide},
    {CONFIG_TYPE_BYTE, "filters_right_align", &filters_right_align},
    {CONFIG_TYPE_BYTE, "filters_tab_stop", &filters_tab_stop},
    {CONFIG_TYPE_TEXT, "filter", &filter},
    {CONFIG_TYPE_TEXT, "filter_sablewatch_name", &filter_sablewatch_name},
    {CONFIG_TYPE_INT, "filter_organize_x", &filter_organize_x},
    {CONFIG_TYPE_INT, "filter_organize_y", &filter_organize_y},
    {CONFIG_TYPE_INT, "filter_organize_wide", &filter_organize_wide},
    {CONFIG_TYPE_INT, "filter_organize_high", &filter_organize_high},
    {CONFIG_TYPE_BYTE, "preview_visible", &preview_visible},
    {CONFIG_TYPE_INT, "preview_x", &preview_x},
    {CONFIG_TYPE_BYTE, "preview_tab_stop", &preview_tab_stop},
    {CONFIG_TYPE_INT, "preview_mag_filter", &preview_mag_filter},
    {CONFIG_TYPE_INT, "preview_min_filter", &preview_min_filter},
    {CONFIG_TYPE_BYTE, "preview_fill", &preview_fill},
    {CONFIG_TYPE_BYTE, "show_preview_handlers_in_preview_pane", &show_preview_handlers_in_preview_pane},
    {CONFIG_TYPE_INT, "preview_load_size", &preview_load_size},
    {CONFIG_TYPE_HEX, "preview_context", &preview_context},
    {CONFIG_TYPE_BYTE, "preview_release_handler_on_clear", &preview_release_handler_on_clear},
    {CONFIG_TYPE_TEXT, "sort", &sort},
    {CONFIG_TYPE_BYTE, "sort_ascending", &sort_ascending},
    {CONFIG_TYPE_BYTE, "always_keep_sort", &always_keep_sort},
    {CONFIG_TYPE_BYTE, "index", &index_setting},
    {CONFIG_TYPE_TEXT, "index_file_list", &index_file_list},
    {CONFIG_TYPE_TEXT, "index_stp_server", &index_stp_server},
    {CONFIG_TYPE_BYTE, "index_link_type", &index_link_type},
    {CONFIG_TYPE_BYTE, "status_bar_visible", &status_bar_visible},
    {CONFIG_TYPE_BYTE, "select_search_on_focus_mode", &select_search_on_focus_mode},
    {CONFIG_TYPE_BYTE, "select_search_on_set_mode", &select_search_on_set_mode},
    {CONFIG_TYPE_BYTE, "search_history_enabled", &search_history_enabled},
    {CONFIG_TYPE_BYTE, "run_history_enabled", &run_history_enabled},
    {CONFIG_TYPE_INT, "search_history_days_to_keep", &search_history_days_to_keep},
    {CONFIG_TYPE_INT, "run_history_days_to_keep", &run_history_days_to_keep},
    {CONFIG_TYPE_BYTE, "search_history_keep_forever", &search_history_keep_forever},
    {CONFIG_TYPE_BYTE, "run_history_keep_forever", &run_history_keep_forever},
    {CONFIG_TYPE_BYTE, "search_history_always_suggest", &search_history_always_suggest},
    {CONFIG_TYPE_BYTE, "search_history_always_suggest_extend_toolbar",
     &search_history_always_suggest_extend_toolbar},
    {CONFIG_TYPE_INT, "search_history_visible_count_max", &search_history_visible_count_max},
    {CONFIG_TYPE_INT, "search_history_always_suggest_visible_count_max",
     &search_history_always_suggest_visible_count_max},
    {CONFIG_TYPE_INT, "search_history_show_all_max", &search_history_show_all_max},
    {CONFIG_TYPE_INT, "search_history_suggestion_max", &search_history_suggestion_max},
    {CONFIG_TYPE_INT, "search_history_show_all_sort", &search_history_show_all_sort},
    {CONFIG_TYPE_INT, "search_history_suggestion_sort", &search_history_suggestion_sort},
    {CONFIG_TYPE_BYTE, "search_history_show_above", &search_history_show_above},
    {CONFIG_TYPE_BYTE, "search_history_sort", &search_history_sort},
    {CONFIG_TYPE_BYTE, "search_history_sort_ascending", &search_history_sort_ascending},
    {CONFIG_TYPE_INT, "search_history_x", &search_history_x},
    {CONFIG_TYPE_INT, "search_history_y", &search_history_y},
    {CONFIG_TYPE_INT, "search_history_wide", &search_history_wide},
    {CONFIG_TYPE_INT, "search_history_high", &search_history_high},
    {CONFIG_TYPE_INT, "search_history_column_search_wide", &search_history_column_search_wide},
    {CONFIG_TYPE_INT, "search_history_column_search_order", &search_history_column_search_order},
    {CONFIG_TYPE_INT, "search_history_column_count_wide", &search_history_column_count_wide},
    {CONFIG_TYPE_INT, "search_history_column_count_order", &search_history_column_count_order},
    {CONFIG_TYPE_INT, "search_history_column_date_wide", &search_history_column_date_wide},
    {CONFIG_TYPE_INT, "search_history_column_date_order", &search_history_column_date_order},
    {CONFIG_TYPE_BYTE, "stp_server_enabled", &stp_server_enabled},
    {CONFIG_TYPE_TEXT, "stp_server_bindings", &stp_server_bindings},
    {CONFIG_TYPE_INT, "stp_server_port", &stp_server_port},
    {CONFIG_TYPE_TEXT, "stp_server_username", &stp_server_username},
    {CONFIG_TYPE_TEXT, "stp_server_password", &stp_server_password},
    {CONFIG_TYPE_TEXT, "stp_server_welcome_message", &stp_server_welcome_message},
    {CONFIG_TYPE_TEXT, "stp_server_log_file_name", &stp_server_log_file_name},
    {CONFIG_TYPE_BYTE, "stp_server_logging_enabled", &stp_server_logging_enabled},
    {CONFIG_TYPE_INT, "stp_server_log_max_size", &stp_server_log_max_size},
    {CONFIG_TYPE_INT, "stp_server_log_delta_size", &stp_server_log_delta_size},
    {CONFIG_TYPE_BYTE, "stp_server_allow_file_download", &stp_server_allow_file_download},
    {CONFIG_TYPE_BYTE, "ftp_allow_port", &ftp_allow_port},
    {CONFIG_TYPE_BYTE, "ftp_check_data_connection_ip", &ftp_check_data_connection_ip},
    {CONFIG_TYPE_BYTE, "http_server_enabled", &http_server_enabled},
    {CONFIG_TYPE_TEXT, "http_server_bindings", &http_server_bindings},
    {CONFIG_TYPE_TEXT, "http_title_format", &http_title_format},
    {CONFIG_TYPE_INT, "http_server_port", &http_server_port},
    {CONFIG_TYPE_TEXT, "http_server_username", &http_server_username},
    {CONFIG_TYPE_TEXT, "http_server_password", &http_server_password},
    {CONFIG_TYPE_TEXT, "http_server_home", &http_server_home},
    {CONFIG_TYPE_TEXT, "http_server_default_page", &http_server_default_page},
    {CONFIG_TYPE_TEXT, "http_server_log_file_name", &http_server_log_file_name},
    {CONFIG_TYPE_BYTE, "http_server_logging_enabled", &http_server_logging_enabled},
    {CONFIG_TYPE_INT, "http_server_log_max_size", &http_server_log_max_size},
    {CONFIG_TYPE_INT, "http_server_log_delta_size", &http_server_log_delta_size},
    {CONFIG_TYPE_BYTE, "http_server_allow_file_download", &http_server_allow_file_download},
    {CONFIG_TYPE_INT, "http_server_items_per_page", &http_server_items_per_page},
    {CONFIG_TYPE_BYTE, "http_server_show_drive_labels", &http_server_show_drive_labels},
    {CONFIG_TYPE_TEXT, "http_server_strings", &http_server_strings},
    {CONFIG_TYPE_TEXT, "http_server_header", &http_server_header},
    {CONFIG_TYPE_TEXT, "service_pipe_name", &service_pipe_name},
};
